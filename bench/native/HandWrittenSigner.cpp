// The class vex.bench.HandWrittenSigner: natives that sign with the same OpenSSL calls as the toolkit. "contract" also
// does what the bridge's contract requires: conversion by way of wide text, log records, fetching the result in two
// steps. "straight" leaves out everything that it can.
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstdio>
#include <vector>

#include "Deleter.h"
#include "HandJni.h"
#include "vex_bench_HandWrittenSigner.h"

using namespace bench;

namespace {

struct Signer {
    EVP_PKEY* pKey = nullptr;
    X509* pCertificate = nullptr;
    EVP_MD* pDigest = EVP_MD_fetch(nullptr, "SHA-256", nullptr);
};

const Signer& ToSigner(jlong handle) {
    return *reinterpret_cast<const Signer*>(handle);  // NOLINT(performance-no-int-to-ptr): Java has no pointers
}

std::string Base64(const unsigned char* pbData, std::size_t cbData) {
    std::string strText((cbData + 2) / 3 * 4, 0);
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(strText.data()), pbData, static_cast<int>(cbData));
    return strText;
}

void Require(bool bHolds) {
    if (!bHolds) {
        std::abort();
    }
}

std::string SignP1(const Signer& signer, const char* pchData, std::size_t cbData) {
    const std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>> context(EVP_MD_CTX_new());
    const auto* const pbData = reinterpret_cast<const unsigned char*>(pchData);
    unsigned char signature[512];
    std::size_t cbSignature = sizeof signature;
    Require(EVP_DigestSignInit(context.get(), nullptr, signer.pDigest, nullptr, signer.pKey) == 1);
    Require(EVP_DigestSign(context.get(), signature, &cbSignature, pbData, cbData) == 1);
    return Base64(signature, cbSignature);
}

std::string SignPss(const Signer& signer, const char* pchData, std::size_t cbData) {
    const std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>> context(EVP_MD_CTX_new());
    const auto* const pbData = reinterpret_cast<const unsigned char*>(pchData);
    unsigned char signature[512];
    std::size_t cbSignature = sizeof signature;
    EVP_PKEY_CTX* pKeyContext = nullptr;
    Require(EVP_DigestSignInit(context.get(), &pKeyContext, signer.pDigest, nullptr, signer.pKey) == 1);
    Require(EVP_PKEY_CTX_set_rsa_padding(pKeyContext, RSA_PKCS1_PSS_PADDING) == 1);
    Require(EVP_PKEY_CTX_set_rsa_pss_saltlen(pKeyContext, RSA_PSS_SALTLEN_DIGEST) == 1);
    Require(EVP_DigestSign(context.get(), signature, &cbSignature, pbData, cbData) == 1);
    return Base64(signature, cbSignature);
}

// The text is a SHA-256 digest in Base64.
std::string SignDigest(const Signer& signer, const char* pchText, std::size_t cbText) {
    constexpr std::size_t kDigest = 32;
    unsigned char digest[kDigest + 1];  // EVP_DecodeBlock counts the padding as a byte
    Require(cbText == 44 && EVP_DecodeBlock(digest, reinterpret_cast<const unsigned char*>(pchText), 44) == 33);
    const std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX_free>> context(EVP_PKEY_CTX_new(signer.pKey, nullptr));
    unsigned char signature[512];
    std::size_t cbSignature = sizeof signature;
    Require(EVP_PKEY_sign_init(context.get()) == 1);
    Require(EVP_PKEY_CTX_set_signature_md(context.get(), signer.pDigest) == 1);
    Require(EVP_PKEY_sign(context.get(), signature, &cbSignature, digest, kDigest) == 1);
    return Base64(signature, cbSignature);
}

std::string SignP7(const Signer& signer, const char* pchData, std::size_t cbData) {
    constexpr unsigned int kFlags = CMS_BINARY | CMS_PARTIAL | CMS_NOSMIMECAP | CMS_CADES | CMS_DETACHED;
    const std::unique_ptr<CMS_ContentInfo, Deleter<CMS_ContentInfo_free>> cms(
        CMS_sign(nullptr, nullptr, nullptr, nullptr, kFlags));
    Require(CMS_add1_signer(cms.get(), signer.pCertificate, signer.pKey, signer.pDigest, kFlags) != nullptr);
    const std::unique_ptr<BIO, Deleter<BIO_free_all>> content(BIO_new_mem_buf(pchData, static_cast<int>(cbData)));
    Require(CMS_final(cms.get(), content.get(), nullptr, kFlags) == 1);
    unsigned char* pbDer = nullptr;
    const int cbDer = i2d_CMS_ContentInfo(cms.get(), &pbDer);
    Require(cbDer > 0);
    std::string strText = Base64(pbDer, static_cast<std::size_t>(cbDer));
    OPENSSL_free(pbDer);
    return strText;
}

using Sign = std::string (*)(const Signer&, const char*, std::size_t);

jstring Contract(JNIEnv* pEnv, jlong handle, jstring jText, Sign sign, const wchar_t* pszName, const char* pszNarrow,
                 int nEnter, int nLeave) {
    HandLog::Trace(pszName, pszNarrow, nEnter, L"%s Enter.");
    const std::wstring strWide = HandWideText(pEnv, jText);
    std::string strSignature;
    {
        const std::string strText = HandNarrowText(strWide);
        strSignature = sign(ToSigner(handle), strText.data(), strText.size());
    }
    const auto pszResult = std::make_unique<char[]>(strSignature.size() + 1);
    std::memcpy(pszResult.get(), strSignature.c_str(), strSignature.size() + 1);
    const jstring jResult = HandJavaText(pEnv, pszResult.get());
    HandLog::Trace(pszName, pszNarrow, nLeave, L"%s Leave.");
    return jResult;
}

jstring Straight(JNIEnv* pEnv, jlong handle, jstring jText, Sign sign) {
    const jsize cb = pEnv->GetStringUTFLength(jText);
    const char* const pszText = pEnv->GetStringUTFChars(jText, nullptr);
    const std::string strSignature = sign(ToSigner(handle), pszText, static_cast<std::size_t>(cb));
    pEnv->ReleaseStringUTFChars(jText, pszText);
    return pEnv->NewStringUTF(strSignature.c_str());
}

}  // namespace

extern "C" {

JNIEXPORT void JNICALL Java_vex_bench_HandWrittenSigner_startLog(JNIEnv* pEnv, jclass, jstring jFile) {
    const char* const pszFile = pEnv->GetStringUTFChars(jFile, nullptr);
    HandLog::Start(pszFile);
    pEnv->ReleaseStringUTFChars(jFile, pszFile);
}

JNIEXPORT jlong JNICALL Java_vex_bench_HandWrittenSigner_open(JNIEnv* pEnv, jclass, jstring jPemFile) {
    const char* const pszFile = pEnv->GetStringUTFChars(jPemFile, nullptr);
    auto* const pSigner = new Signer;
    std::FILE* const pFile = std::fopen(pszFile, "re");
    Require(pFile != nullptr);
    pSigner->pKey = PEM_read_PrivateKey(pFile, nullptr, nullptr, nullptr);
    std::rewind(pFile);
    pSigner->pCertificate = PEM_read_X509(pFile, nullptr, nullptr, nullptr);
    std::fclose(pFile);
    pEnv->ReleaseStringUTFChars(jPemFile, pszFile);
    Require(pSigner->pKey != nullptr && pSigner->pCertificate != nullptr && pSigner->pDigest != nullptr);
    return reinterpret_cast<jlong>(pSigner);
}

JNIEXPORT jstring JNICALL Java_vex_bench_HandWrittenSigner_contractP1(JNIEnv* pEnv, jclass, jlong handle,
                                                                      jstring jText) {
    return Contract(pEnv, handle, jText, SignP1, L"Java_vex_jni_TAVClientJNI_P1SignString",
                    "Java_vex_jni_TAVClientJNI_P1SignString", 274, 318);
}
JNIEXPORT jstring JNICALL Java_vex_bench_HandWrittenSigner_contractPss(JNIEnv* pEnv, jclass, jlong handle,
                                                                       jstring jText) {
    return Contract(pEnv, handle, jText, SignPss, L"Java_vex_jni_TAVClientJNI_P1SignString",
                    "Java_vex_jni_TAVClientJNI_P1SignString", 274, 318);
}
JNIEXPORT jstring JNICALL Java_vex_bench_HandWrittenSigner_contractDigest(JNIEnv* pEnv, jclass, jlong handle,
                                                                          jstring jText) {
    return Contract(pEnv, handle, jText, SignDigest, L"Java_vex_jni_TAVClientJNI_P1Sign",
                    "Java_vex_jni_TAVClientJNI_P1Sign", 223, 267);
}
JNIEXPORT jstring JNICALL Java_vex_bench_HandWrittenSigner_contractP7(JNIEnv* pEnv, jclass, jlong handle,
                                                                      jstring jText) {
    return Contract(pEnv, handle, jText, SignP7, L"Java_vex_jni_TAVClientJNI_P7SignString",
                    "Java_vex_jni_TAVClientJNI_P7SignString", 377, 420);
}
JNIEXPORT jstring JNICALL Java_vex_bench_HandWrittenSigner_straightP1(JNIEnv* pEnv, jclass, jlong handle,
                                                                      jstring jText) {
    return Straight(pEnv, handle, jText, SignP1);
}
JNIEXPORT jstring JNICALL Java_vex_bench_HandWrittenSigner_straightP7(JNIEnv* pEnv, jclass, jlong handle,
                                                                      jstring jText) {
    return Straight(pEnv, handle, jText, SignP7);
}

}  // extern "C"
