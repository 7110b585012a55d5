// OpenSSL's objects as owning C++ types.
#pragma once

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <new>
#include <string>

namespace vexsign::verify {

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

using BioPtr = std::unique_ptr<BIO, Deleter<BIO_free_all>>;
using BignumPtr = std::unique_ptr<BIGNUM, Deleter<BN_free>>;
using CertificatePtr = std::unique_ptr<X509, Deleter<X509_free>>;
using CertificatesPtr = std::unique_ptr<STACK_OF(X509), FreeCertificates>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, Deleter<CMS_ContentInfo_free>>;
using DigestContextPtr = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>>;
using DigestPtr = std::unique_ptr<EVP_MD, Deleter<EVP_MD_free>>;
using KeyContextPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX_free>>;
using StorePtr = std::unique_ptr<X509_STORE, Deleter<X509_STORE_free>>;
using StoreContextPtr = std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX_free>>;

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

// The reason of the newest error of this thread, "unknown reason" if there is none. Empties the queue. Throws
// std::bad_alloc if memory ran out: that says nothing about the signature.
inline std::string TakeReason() {
    const unsigned long ulError = ERR_peek_last_error();
    ERR_clear_error();
    if (ERR_GET_REASON(ulError) == ERR_R_MALLOC_FAILURE) {
        throw std::bad_alloc();
    }
    const char* const pszReason = ulError == 0 ? nullptr : ERR_reason_error_string(ulError);
    return pszReason == nullptr ? "unknown reason" : pszReason;
}

inline CertificatesPtr NewCertificates() {
    return CertificatesPtr(RequireMemory(sk_X509_new_null()));
}

// The list shares the certificate.
inline void AddCertificate(STACK_OF(X509) * pStack, X509* pCertificate) {
    X509_up_ref(pCertificate);
    CertificatePtr shared(pCertificate);
    RequireMemory(sk_X509_push(pStack, pCertificate) > 0);
    static_cast<void>(shared.release());
}

}  // namespace vexsign::verify
