// OpenSSL's objects as owning C++ types, its one-time initialisation, and its failures.
#pragma once

#include <openssl/pkcs12.h>
#include <openssl/provider.h>

#include <memory>
#include <string>

#include "crypto/Errors.h"
#include "crypto/Owned.h"
#include "crypto/Values.h"

namespace vextk {

using namespace vexcrypto;

using CipherPtr = std::unique_ptr<EVP_CIPHER, Deleter<EVP_CIPHER_free>>;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION_free>>;
using LibraryContextPtr = std::unique_ptr<OSSL_LIB_CTX, Deleter<OSSL_LIB_CTX_free>>;
using Pbe2Ptr = std::unique_ptr<PBE2PARAM, Deleter<PBE2PARAM_free>>;
using Pkcs12Ptr = std::unique_ptr<PKCS12, Deleter<PKCS12_free>>;
using ProviderPtr = std::unique_ptr<OSSL_PROVIDER, Deleter<OSSL_PROVIDER_unload>>;

// Initialises OpenSSL once. It gets no exit handlers, because the host's threads may still sign while the process ends.
// It wipes memory before it frees it. Neither is possible if the host has used OpenSSL before.
void InitialiseOpenSsl();

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

// Null if the text is not an object identifier in dotted form.
ObjectPtr FindDottedOid(const std::string& strText);

}  // namespace vextk
