// OpenSSL's objects as owning C++ types, and its one-time initialisation.
#pragma once

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/cms.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
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

using BioPtr = std::unique_ptr<BIO, OpenSslDeleter<BIO_free_all>>;
using BignumPtr = std::unique_ptr<BIGNUM, OpenSslDeleter<BN_free>>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, OpenSslDeleter<CMS_ContentInfo_free>>;
using DigestPtr = std::unique_ptr<EVP_MD, OpenSslDeleter<EVP_MD_free>>;
using DigestContextPtr = std::unique_ptr<EVP_MD_CTX, OpenSslDeleter<EVP_MD_CTX_free>>;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, OpenSslDeleter<X509_EXTENSION_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, OpenSslDeleter<EVP_PKEY_free>>;
using ObjectPtr = std::unique_ptr<ASN1_OBJECT, OpenSslDeleter<ASN1_OBJECT_free>>;
using X509Ptr = std::unique_ptr<X509, OpenSslDeleter<X509_free>>;

// Memory that OpenSSL allocated for its caller.
struct OpenSslMemoryDeleter {
    void operator()(void* pMemory) const { OPENSSL_free(pMemory); }
};
template <typename T>
using MemoryPtr = std::unique_ptr<T, OpenSslMemoryDeleter>;

// Initialises OpenSSL once, without its exit handlers: a host's threads may still sign while its exit handlers run; and
// such that it wipes what it frees. A host that has used OpenSSL before has decided about both itself.
void InitialiseOpenSsl();

// Takes the errors that have been added meanwhile off the thread's OpenSSL error queue, which is the host's as well.
class OpenSslErrorMark {
public:
    OpenSslErrorMark() { ERR_set_mark(); }
    ~OpenSslErrorMark() { ERR_pop_to_mark(); }
    OpenSslErrorMark(const OpenSslErrorMark&) = delete;
    OpenSslErrorMark& operator=(const OpenSslErrorMark&) = delete;
};

// The reason text of the newest entry of the thread's error queue; empty when there is none.
std::string LastOpenSslReason();

// Throws VCTK_E_INTERNAL with OpenSSL's reason unless bSucceeded.
void RequireOpenSsl(bool bSucceeded);

// Throws std::bad_alloc when OpenSSL's newest failure was that memory ran out: it then says nothing about the data.
void RequireMemory();

// The object again, or VCTK_E_INTERNAL with OpenSSL's reason when it is null.
template <typename T>
T* RequireOpenSsl(T* pObject) {
    RequireOpenSsl(pObject != nullptr);
    return pObject;
}

// An object identifier in dotted form.
std::string DottedText(const ASN1_OBJECT* pObject);

// Null when the text is not an object identifier in dotted form.
ObjectPtr FindDottedOid(const std::string& strText);

// What has been written to a memory BIO.
std::string MemoryBioText(BIO* pBio);

}  // namespace vextk
