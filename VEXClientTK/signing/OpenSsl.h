// OpenSSL's objects as owning C++ types, and its one-time initialisation.
#pragma once

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/cms.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <string>

namespace vextk {

template <auto Free>
struct OpenSslDeleter {
    template <typename T>
    void operator()(T* pObject) const {
        Free(pObject);
    }
};

using AlgorithmPtr = std::unique_ptr<X509_ALGOR, OpenSslDeleter<X509_ALGOR_free>>;
using BioPtr = std::unique_ptr<BIO, OpenSslDeleter<BIO_free_all>>;
using BignumPtr = std::unique_ptr<BIGNUM, OpenSslDeleter<BN_free>>;
using CipherPtr = std::unique_ptr<EVP_CIPHER, OpenSslDeleter<EVP_CIPHER_free>>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, OpenSslDeleter<CMS_ContentInfo_free>>;
using DigestPtr = std::unique_ptr<EVP_MD, OpenSslDeleter<EVP_MD_free>>;
using DigestContextPtr = std::unique_ptr<EVP_MD_CTX, OpenSslDeleter<EVP_MD_CTX_free>>;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, OpenSslDeleter<X509_EXTENSION_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, OpenSslDeleter<EVP_PKEY_free>>;
using LibraryContextPtr = std::unique_ptr<OSSL_LIB_CTX, OpenSslDeleter<OSSL_LIB_CTX_free>>;
using ObjectPtr = std::unique_ptr<ASN1_OBJECT, OpenSslDeleter<ASN1_OBJECT_free>>;
using Pbe2Ptr = std::unique_ptr<PBE2PARAM, OpenSslDeleter<PBE2PARAM_free>>;
using Pkcs12Ptr = std::unique_ptr<PKCS12, OpenSslDeleter<PKCS12_free>>;
using ProviderPtr = std::unique_ptr<OSSL_PROVIDER, OpenSslDeleter<OSSL_PROVIDER_unload>>;
using X509Ptr = std::unique_ptr<X509, OpenSslDeleter<X509_free>>;

// Memory that OpenSSL allocated for its caller.
struct OpenSslMemoryDeleter {
    void operator()(void* pMemory) const { OPENSSL_free(pMemory); }
};
template <typename T>
using MemoryPtr = std::unique_ptr<T, OpenSslMemoryDeleter>;

// Initialises OpenSSL once. It gets no exit handlers, because the host's threads may still sign while the process ends.
// It wipes memory before it frees it. Neither is possible if the host has used OpenSSL before.
void InitialiseOpenSsl();

// Removes from the thread's OpenSSL error queue what was added since the mark was set. The host uses the same queue.
class OpenSslErrorMark {
public:
    OpenSslErrorMark() { ERR_set_mark(); }
    ~OpenSslErrorMark() { ERR_pop_to_mark(); }
    OpenSslErrorMark(const OpenSslErrorMark&) = delete;
    OpenSslErrorMark& operator=(const OpenSslErrorMark&) = delete;
};

// The reason text of the newest entry of the thread's error queue; empty if there is none.
std::string LastOpenSslReason();

// An operation of this thread begins, which RequireMemory() is about.
void BeginOperation() noexcept;

// For a failure of OpenSSL. Throws std::bad_alloc if memory ran out during the operation: then the failure says nothing
// about the data. OpenSSL's newest error often does not tell, and sometimes none of its errors does.
void RequireMemory();

// Unless bSucceeded, throws std::bad_alloc if memory ran out, and else VCTK_E_INTERNAL with OpenSSL's reason.
void RequireOpenSsl(bool bSucceeded);

// The same for null. Returns the object.
template <typename T>
T* RequireOpenSsl(T* pObject) {
    RequireOpenSsl(pObject != nullptr);
    return pObject;
}

// An object identifier in dotted form.
std::string DottedText(const ASN1_OBJECT* pObject);

// Null if the text is not an object identifier in dotted form.
ObjectPtr FindDottedOid(const std::string& strText);

// The bytes that were written to a memory BIO.
std::string MemoryBioText(BIO* pBio);

}  // namespace vextk
