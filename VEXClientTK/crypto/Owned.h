// OpenSSL's objects as owning C++ types.
#pragma once

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/cms.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace vexcrypto {

template <auto Free>
struct Deleter {
    template <typename T>
    void operator()(T* pObject) const {
        Free(pObject);
    }
};

// Memory that OpenSSL allocated for its caller.
struct MemoryDeleter {
    void operator()(void* pMemory) const { OPENSSL_free(pMemory); }
};

// A list and the certificates in it.
struct CertificatesDeleter {
    void operator()(STACK_OF(X509) * pStack) const { sk_X509_pop_free(pStack, X509_free); }
};

using AlgorithmPtr = std::unique_ptr<X509_ALGOR, Deleter<X509_ALGOR_free>>;
using AnyPtr = std::unique_ptr<ASN1_TYPE, Deleter<ASN1_TYPE_free>>;
using BignumPtr = std::unique_ptr<BIGNUM, Deleter<BN_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO_free_all>>;
using CertificatesPtr = std::unique_ptr<STACK_OF(X509), CertificatesDeleter>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, Deleter<CMS_ContentInfo_free>>;
using DigestContextPtr = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>>;
using DigestPtr = std::unique_ptr<EVP_MD, Deleter<EVP_MD_free>>;
using EcSignaturePtr = std::unique_ptr<ECDSA_SIG, Deleter<ECDSA_SIG_free>>;
using ExtendedUsagePtr = std::unique_ptr<EXTENDED_KEY_USAGE, Deleter<EXTENDED_KEY_USAGE_free>>;
using GroupPtr = std::unique_ptr<EC_GROUP, Deleter<EC_GROUP_free>>;
using KeyContextPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
template <typename T>
using MemoryPtr = std::unique_ptr<T, MemoryDeleter>;
using ObjectPtr = std::unique_ptr<ASN1_OBJECT, Deleter<ASN1_OBJECT_free>>;
using StoreContextPtr = std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX_free>>;
using StorePtr = std::unique_ptr<X509_STORE, Deleter<X509_STORE_free>>;
using TimePtr = std::unique_ptr<ASN1_TIME, Deleter<ASN1_TIME_free>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509_free>>;

}  // namespace vexcrypto
