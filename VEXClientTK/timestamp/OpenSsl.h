// OpenSSL's objects as owning C++ types, and its errors as text.
#pragma once

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/cms.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ess.h>
#include <openssl/evp.h>
#include <openssl/http.h>
#include <openssl/ts.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <new>
#include <string>

namespace vextimestamp {

template <auto Free>
struct Deleter {
    template <typename T>
    void operator()(T* pObject) const {
        Free(pObject);
    }
};

struct FreeMemory {
    void operator()(void* pMemory) const { OPENSSL_free(pMemory); }
};
struct FreeCertificates {
    void operator()(STACK_OF(X509) * pStack) const { sk_X509_pop_free(pStack, X509_free); }
};

using AlgorithmPtr = std::unique_ptr<X509_ALGOR, Deleter<X509_ALGOR_free>>;
using AnyPtr = std::unique_ptr<ASN1_TYPE, Deleter<ASN1_TYPE_free>>;
using BignumPtr = std::unique_ptr<BIGNUM, Deleter<BN_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO_free_all>>;
using CertificatesPtr = std::unique_ptr<STACK_OF(X509), FreeCertificates>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, Deleter<CMS_ContentInfo_free>>;
using DigestPtr = std::unique_ptr<EVP_MD, Deleter<EVP_MD_free>>;
using HttpPtr = std::unique_ptr<OSSL_HTTP_REQ_CTX, Deleter<OSSL_HTTP_REQ_CTX_free>>;
using ImprintPtr = std::unique_ptr<TS_MSG_IMPRINT, Deleter<TS_MSG_IMPRINT_free>>;
using InfoPtr = std::unique_ptr<TS_TST_INFO, Deleter<TS_TST_INFO_free>>;
using IntegerPtr = std::unique_ptr<ASN1_INTEGER, Deleter<ASN1_INTEGER_free>>;
using ObjectPtr = std::unique_ptr<ASN1_OBJECT, Deleter<ASN1_OBJECT_free>>;
using RequestPtr = std::unique_ptr<TS_REQ, Deleter<TS_REQ_free>>;
using StatusPtr = std::unique_ptr<TS_STATUS_INFO, Deleter<TS_STATUS_INFO_free>>;
using StoreContextPtr = std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX_free>>;
using UsagePtr = std::unique_ptr<EXTENDED_KEY_USAGE, Deleter<EXTENDED_KEY_USAGE_free>>;
template <typename T>
using MemoryPtr = std::unique_ptr<T, FreeMemory>;

// Removes from the thread's OpenSSL error queue what was added since the mark was set. The host uses the same queue.
class ErrorMark {
public:
    ErrorMark() { ERR_set_mark(); }
    ~ErrorMark() { ERR_pop_to_mark(); }
    ErrorMark(const ErrorMark&) = delete;
    ErrorMark& operator=(const ErrorMark&) = delete;
};

// For functions of OpenSSL that fail only when memory runs out.
inline void RequireMemory(bool bSucceeded) {
    if (!bSucceeded) {
        throw std::bad_alloc();
    }
}
template <typename T>
T* RequireMemory(T* pObject) {
    RequireMemory(pObject != nullptr);
    return pObject;
}

// The reason and details of the newest error of this thread, in one visible line. Throws std::bad_alloc if memory ran
// out: that says nothing about the data.
std::string LastReason();

// An object identifier in dotted form; empty if OpenSSL does not show it, which it does up to 586 bytes of DER.
std::string DottedText(const ASN1_OBJECT* pObject);

}  // namespace vextimestamp
