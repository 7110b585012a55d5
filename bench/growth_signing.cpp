// Does a signature take longer when more objects are open, or when the store has more certificates? It signs with
// P-256, because these signatures take the least time, so any other cost is visible. Do handles that share a store sign
// side by side like handles with a store each, and how much faster than the first does a further handle open?
//
// With signatures=N and mode=p1 or mode=p7 it only makes N signatures with an RSA key, for counting from outside.
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>
#include <thread>
#include <vector>

#include "Bench.h"
#include "Deleter.h"
#include "TempDirectory.h"
#include "VCTK.h"

namespace {

// Keys and self-signed certificates. The first certificate stays valid longest.
std::string MakeStore(const std::string& strFile, int nCertificates, bool bRsa) {
    std::FILE* const pFile = std::fopen(strFile.c_str(), "we");
    bench::Require(pFile != nullptr, "a store's file");
    for (int i = 0; i < nCertificates; ++i) {
        const std::unique_ptr<EVP_PKEY, bench::Deleter<EVP_PKEY_free>> key(bRsa ? EVP_RSA_gen(2048)
                                                                                : EVP_EC_gen("P-256"));
        const std::unique_ptr<X509, bench::Deleter<X509_free>> certificate(X509_new());
        ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), i + 1);
        X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -60);
        X509_gmtime_adj(X509_getm_notAfter(certificate.get()), i == 0 ? 2000000 : 1000000);
        const std::string strName = "Number " + std::to_string(i);
        X509_NAME* const pName = X509_get_subject_name(certificate.get());
        X509_NAME_add_entry_by_txt(pName, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(strName.c_str()),
                                   -1, -1, 0);
        X509_set_issuer_name(certificate.get(), pName);
        X509_set_pubkey(certificate.get(), key.get());
        X509_sign(certificate.get(), key.get(), EVP_sha256());
        PEM_write_PrivateKey(pFile, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
        PEM_write_X509(pFile, certificate.get());
    }
    bench::Require(std::fclose(pFile) == 0, "a store's file");
    return "file:" + strFile;
}

HANDLE Open(const std::string& strStore) {
    const HANDLE hObject = VCTK_Initialize(strStore.c_str());
    bench::Require(hObject != nullptr && VCTK_CallQueueEnable(hObject, 0, 1) == 0, "opening " + strStore);
    return hObject;
}

std::string Fetch(HANDLE hObject, INT (*pFetch)(HANDLE, char*, int*)) {
    int nLength = 0;
    bench::Require(pFetch(hObject, nullptr, &nLength) == 0 && nLength > 0, "the size of a signature");
    std::string strText(static_cast<std::size_t>(nLength), 0);
    bench::Require(pFetch(hObject, strText.data(), &nLength) == 0, "a signature");
    return strText;
}

std::string SignP1(HANDLE hObject, const std::string& strText) {
    bench::Require(VCTK_P1Sign(hObject, strText.c_str(), 0) == 0, "signing");
    return Fetch(hObject, VCTK_GetP1SignResult);
}

std::string SignP7(HANDLE hObject, const std::string& strText) {
    bench::Require(VCTK_P7Sign(hObject, strText.c_str(), 0, 1, 1) == 0, "signing");
    return Fetch(hObject, VCTK_GetP7SignResult);
}

const std::string& Text() {
    static const std::string s_strText(1024, 'x');
    return s_strText;
}

double SignaturesPerSecond(HANDLE hObject, int nSignatures) {
    SignP1(hObject, Text());  // chooses the certificate
    const double dBegin = bench::CpuSeconds();
    for (int i = 0; i < nSignatures; ++i) {
        SignP1(hObject, Text());
    }
    return nSignatures / (bench::CpuSeconds() - dBegin);
}

// By the clock, of all threads together. Each thread has a handle.
double SignaturesPerSecondOf(const std::vector<HANDLE>& handles, int nSignatures) {
    for (const HANDLE hObject : handles) {
        SignP1(hObject, Text());
    }
    const double dBegin = bench::WallSeconds();
    std::vector<std::jthread> threads;
    for (const HANDLE hObject : handles) {
        threads.emplace_back([=] {
            for (int i = 0; i < nSignatures; ++i) {
                SignP1(hObject, Text());
            }
        });
    }
    threads.clear();
    return nSignatures * static_cast<double>(handles.size()) / (bench::WallSeconds() - dBegin);
}

double OpeningsPerSecond(const std::string& strStore) {
    const double dBegin = bench::CpuSeconds();
    VCTK_Finalize(Open(strStore));
    return 1 / (bench::CpuSeconds() - dBegin);
}

void CompareHandlesOfOneStore(const TempDirectory& directory, int nSignatures, int nRounds) {
    for (const bool bRsa : {true, false}) {
        const std::string strName = bRsa ? "RSA-2048" : "P-256";
        const std::string strStore = MakeStore(directory.Path(strName + ".pem"), 1, bRsa);
        const HANDLE hFirst = Open(strStore);
        const HANDLE hShared = Open(strStore);
        const HANDLE hOther = Open(MakeStore(directory.Path(strName + " other.pem"), 1, bRsa));
        bench::Interleave(strName + " signatures, two threads", "signatures/s", nRounds,
                          {{"one thread", [&] { return SignaturesPerSecondOf({hFirst}, nSignatures); }},
                           {"one store",
                            [&] {
                                return SignaturesPerSecondOf({hFirst, hShared}, nSignatures);
                            }},
                           {"two stores", [&] {
                                return SignaturesPerSecondOf({hFirst, hOther}, nSignatures);
                            }}});
    }
    constexpr int kCertificates = 1000;
    const std::string strLarge = MakeStore(directory.Path("large.pem"), kCertificates, false);
    bench::Interleave("opening a store of 1000 certificates", "openings/s", nRounds,
                      {{"the first handle", [&] { return OpeningsPerSecond(strLarge); }},
                       {"beside another handle", [&] {
                            const HANDLE hFirst = Open(strLarge);
                            const double dRate = OpeningsPerSecond(strLarge);
                            VCTK_Finalize(hFirst);
                            return dRate;
                        }}});
}

}  // namespace

int main(int argc, char** argv) {
    const bench::Amounts amounts(argc, argv);
    bench::Question("Does a signature take longer the more objects are open or the more certificates there are?");
    const std::string strMode = amounts.Text("mode", "all");
    const int nSignatures = amounts.Of("signatures", 300);
    const TempDirectory directory;
    if (strMode != "all") {
        const HANDLE hObject = Open(MakeStore(directory.Path("rsa.pem"), 1, true));
        for (int i = 0; i < nSignatures; ++i) {
            strMode == "p7" ? SignP7(hObject, Text()) : SignP1(hObject, Text());
        }
        return 0;
    }

    const int nObjects = amounts.Of("objects", 1000);
    const int nCertificates = amounts.Of("certificates", 10000);
    const int nRounds = amounts.Of("rounds", 30);
    const std::string strOne = MakeStore(directory.Path("one.pem"), 1, false);
    const HANDLE hOne = Open(strOne);
    bench::Interleave("signatures, one object's", "signatures/s", nRounds,
                      {{"1 object open", [&] { return SignaturesPerSecond(hOne, nSignatures); }},
                       {std::to_string(nObjects) + " objects open", [&] {
                            std::vector<HANDLE> others;
                            for (int i = 1; i < nObjects; ++i) {
                                others.push_back(Open(strOne));
                            }
                            const double dRate = SignaturesPerSecond(hOne, nSignatures);
                            for (const HANDLE hOther : others) {
                                VCTK_Finalize(hOther);
                            }
                            return dRate;
                        }}});
    const HANDLE hMany = Open(MakeStore(directory.Path("many.pem"), nCertificates, false));
    bench::Interleave(
        "signatures, one store's", "signatures/s", nRounds,
        {{"1 certificate", [&] { return SignaturesPerSecond(hOne, nSignatures); }},
         {std::to_string(nCertificates) + " certificates", [&] { return SignaturesPerSecond(hMany, nSignatures); }}});
    CompareHandlesOfOneStore(directory, nSignatures, nRounds);
    return 0;
}
