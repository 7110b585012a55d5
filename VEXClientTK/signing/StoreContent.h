// What a store file holds, and how reading it fails.
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
    DerivationWork work;  // what deriving keys from the PIN has taken

    // Null counts as a damaged certificate.
    void AddCertificate(X509Ptr certificate);

    // A key of a kind that OpenSSL does not know is passed over. Throws VCTK_E_STORE_FORMAT for a damaged one: it may
    // be the one that was meant to sign.
    void AddKey(const PKCS8_PRIV_KEY_INFO* pKeyInfo);

private:
    std::unique_ptr<KeyReader> m_keyReader = std::make_unique<KeyReader>();
};

// strWhere: such as "a private key in it".
Failure DamagedStore(const std::string& strWhere);

// What is known of the PIN with which a part of a store could not be decrypted.
enum class Pin { kNone, kGiven, kRight };

// Throws what OpenSSL's errors of just now mean: VCTK_E_PIN_WRONG or VCTK_E_PIN_REQUIRED only if nothing else is known
// to be the cause. OpenSSL's queue of errors is empty then.
[[noreturn]] void ThrowDecryptionFailure(Pin pin);

}  // namespace vextk
