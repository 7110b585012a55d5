// The content of a store file, and the errors of reading one.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "signing/Failure.h"
#include "signing/KeyDerivation.h"
#include "signing/KeyReader.h"
#include "signing/OpenSsl.h"

namespace vextk {

using KeyInfoPtr = std::unique_ptr<PKCS8_PRIV_KEY_INFO, Deleter<PKCS8_PRIV_KEY_INFO_free>>;

struct StoreContent {
    std::vector<X509Ptr> certificates;
    std::vector<KeyPtr> keys;
    std::unordered_map<const void*, std::string> names;  // UTF-8; of the certificates and keys that have one
    size_t cDamagedCertificates = 0;
    DerivationWork work;  // the work of deriving keys from the PIN so far

    // Null counts as a damaged certificate.
    void AddCertificate(X509Ptr certificate, std::string strName = {});

    // Skips a key of a type that OpenSSL does not know. Throws VCTK_E_STORE_FORMAT for a damaged key, because the user
    // may want to sign with this one.
    void AddKey(const PKCS8_PRIV_KEY_INFO* pKeyInfo, std::string strName = {});

private:
    void AddName(const void* pNamed, std::string strName);

    std::unique_ptr<KeyReader> m_keyReader = std::make_unique<KeyReader>();
};

// strWhere: such as "a part of it".
Failure DamagedStore(const std::string& strWhere);
// OpenSSL's reason does not tell a damaged key from one in a form that it does not know, such as that of RFC 5958 with
// the public key.
Failure UnreadablePrivateKey();

// What is known about the PIN when a part of a store cannot be decrypted. kRight: it is the PIN of the whole file, but
// a part may have another one. kRightBeyondAscii: the same for a PIN that is not ASCII. Programs that agree on its
// bytes for the MAC, UTF-16, do not for the parts.
enum class Pin { kNone, kGiven, kRight, kRightBeyondAscii, kUntried };

// Takes errors off OpenSSL's queue until one tells the cause, and throws that. If none does, the PIN is at fault, or
// with Pin::kRight, Pin::kRightBeyondAscii and Pin::kUntried the data.
[[noreturn]] void ThrowDecryptionFailure(Pin pin);

}  // namespace vextk
