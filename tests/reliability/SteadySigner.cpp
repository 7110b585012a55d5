// Signs at a steady pace, verifies each signature, and keeps a file on the file server in use. Its log goes through the
// server, too. Answers each line on standard input with its counts, and ends with the input and a last answer.
//
//   SteadySigner STORE CERTIFICATE SERVED_FILE
//
// It writes the real log, so it only runs where OtherUsers.py has hidden the machine's /tmp.
#include <jni.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "DebugLogMgr.h"
#include "FakeJniEnv.h"
#include "ToolkitClient.h"
#include "VexFile.h"
#include "vex_jni_TAVClientJNI.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPause(10);
constexpr std::chrono::milliseconds kPauseBetweenLines(50);
// A record takes four exchanges with the server, each of which starts a program.
constexpr long kSignaturesPerRecord = 20;

std::atomic<long> g_nVerified{0};
std::atomic<long> g_nFailed{0};
std::atomic<long> g_nLongest{0};  // microseconds, since the last answer
std::atomic<long> g_nLines{0};    // confirmed by the server
std::atomic<long> g_nLost{0};     // not confirmed
std::atomic<bool> g_bEnd{false};

using KeyPtr = std::unique_ptr<EVP_PKEY, decltype([](EVP_PKEY* pKey) { EVP_PKEY_free(pKey); })>;

KeyPtr PublicKeyOf(const char* pszFile) {
    std::FILE* const pFile = std::fopen(pszFile, "re");
    X509* const pCertificate = pFile != nullptr ? PEM_read_X509(pFile, nullptr, nullptr, nullptr) : nullptr;
    KeyPtr key(pCertificate != nullptr ? X509_get_pubkey(pCertificate) : nullptr);
    X509_free(pCertificate);
    if (pFile != nullptr) {
        static_cast<void>(std::fclose(pFile));
    }
    return key;
}

bool Verifies(EVP_PKEY* pKey, const std::string& strText, const std::string& strBase64) {
    std::vector<unsigned char> signature(strBase64.size());
    const int cb = EVP_DecodeBlock(signature.data(), reinterpret_cast<const unsigned char*>(strBase64.data()),
                                   static_cast<int>(strBase64.size()));
    if (cb <= 0) {
        return false;
    }
    const size_t cbPadding = strBase64.ends_with("==") ? 2 : strBase64.ends_with('=') ? 1 : 0;
    const std::unique_ptr<EVP_MD_CTX, decltype([](EVP_MD_CTX* p) { EVP_MD_CTX_free(p); })> context(EVP_MD_CTX_new());
    return EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, pKey) == 1 &&
           EVP_DigestVerify(context.get(), signature.data(), static_cast<size_t>(cb) - cbPadding,
                            reinterpret_cast<const unsigned char*>(strText.data()), strText.size()) == 1;
}

// Through the natives, which write two records of the log.
std::string SignWithLog(jlong handle, const std::string& strText) {
    FakeJniEnv env;
    const jstring signature = Java_vex_jni_TAVClientJNI_P1SignString(&env, nullptr, handle, env.MakeString(strText));
    return signature != nullptr ? env.Bytes(signature) : std::string();
}

void SignSteadily(const char* pszStore, EVP_PKEY* pKey) {
    const ToolkitClient client(pszStore);
    FakeJniEnv env;
    const jlong handle = Java_vex_jni_TAVClientJNI_Initialize(&env, nullptr, nullptr, env.MakeString(pszStore));
    for (long n = 0; !g_bEnd; ++n) {
        const std::string strText = "text " + std::to_string(n);
        const auto begin = Clock::now();
        const std::string strSignature =
            n % kSignaturesPerRecord == 0 ? SignWithLog(handle, strText) : client.SignP1(strText).value_or("");
        const long nTook = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin).count();
        ++(Verifies(pKey, strText, strSignature) ? g_nVerified : g_nFailed);
        g_nLongest = std::max(g_nLongest.load(), nTook);
        std::this_thread::sleep_for(kPause);
    }
    if (Java_vex_jni_TAVClientJNI_Finalize(&env, nullptr, handle) != 0) {
        ++g_nFailed;
    }
}

bool Append(CVexFile& file, const wchar_t* pszName, const std::string& strLine) {
    DWORD dwError = 0;
    if (!file.IsOpen() && !file.OpenFile(pszName, dwError)) {
        return false;
    }
    if (!file.SeekToEnd()) {
        if (!file.IsServerLost()) {
            file.ForgetServerFile();
        }
        return false;
    }
    DWORD dwCount = strLine.size();
    return file.Write(reinterpret_cast<const BYTE*>(strLine.data()), dwCount) && !file.IsServerLost() &&
           dwCount == strLine.size();
}

void WriteLines(const std::wstring& strName) {
    CVexFile file;
    file.EnableServerSupport(TRUE);
    for (long n = 0; !g_bEnd; ++n) {
        ++(Append(file, strName.c_str(), "line " + std::to_string(n) + "\n") ? g_nLines : g_nLost);
        std::this_thread::sleep_for(kPauseBetweenLines);
    }
}

void Report() {
    std::printf("%ld %ld %ld %ld %ld\n", g_nVerified.load(), g_nFailed.load(), g_nLongest.exchange(0), g_nLines.load(),
                g_nLost.load());
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4 || std::getenv("VEX_TEST_OWN_PLACES") == nullptr) {
        return 2;
    }
    const KeyPtr key = PublicKeyOf(argv[2]);
    if (key == nullptr) {
        return 2;
    }
    CDebugLogMgr::GetInstance()->EnableServerSupport(TRUE);
    const std::string strServed = argv[3];
    std::thread signing([&] { SignSteadily(argv[1], key.get()); });
    std::thread writing([&] { WriteLines(std::wstring(strServed.begin(), strServed.end())); });
    for (std::string strLine; std::getline(std::cin, strLine);) {
        Report();
    }
    g_bEnd = true;
    signing.join();
    writing.join();
    Report();
    return g_nFailed == 0 ? 0 : 1;
}
