// The content of a store file, and the errors of reading one.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "signing/Failure.h"
#include "signing/KeyDerivation.h"
#include "signing/KeyReader.h"
#include "signing/OpenSsl.h"

namespace vextk {

using KeyInfoPtr = std::unique_ptr<PKCS8_PRIV_KEY_INFO, OpenSslDeleter<PKCS8_PRIV_KEY_INFO_free>>;

struct StoreContent {
    std::vector<X509Ptr> certificates;
    std::vector<KeyPtr> keys;
    size_t cDamagedCertificates = 0;
    DerivationWork work;  // the work of deriving keys from the PIN so far

    // Null counts as a damaged certificate.
    void AddCertificate(X509Ptr certificate);

    // Skips a key of a type that OpenSSL does not know. Throws VCTK_E_STORE_FORMAT for a damaged key, because the user
    // may want to sign with this one.
    void AddKey(const PKCS8_PRIV_KEY_INFO* pKeyInfo);

private:
    std::unique_ptr<KeyReader> m_keyReader = std::make_unique<KeyReader>();
};

// strWhere: such as "a private key in it".
Failure DamagedStore(const std::string& strWhere);

// What is known about the PIN when a part of a store cannot be decrypted.
enum class Pin { kNone, kGiven, kRight };

// Takes errors off OpenSSL's queue until one tells the cause, and throws that. If none does, the PIN is at fault, or
// with Pin::kRight the data.
[[noreturn]] void ThrowDecryptionFailure(Pin pin);

}  // namespace vextk
