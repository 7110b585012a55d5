// The initialisation text: a URI that says where the signing certificates are.
//
//   demo:                                   the user's demo store, made on first use
//   file:/path/keys.p12?pin-value=1234      a PKCS #12 or PEM file and its PIN
//   file:/path/keys.p12?pin-source=file:/path/pin
//   pkcs11:token=Card;id=%01?pin-value=1234 the certificates on a token, by RFC 7512
//
// "list=all" behind the "?" of each lets the certificate list show what cannot sign as well, and why.
//
// The path is absolute, as in RFC 8089 ("file:///path" and "file://localhost/path" are the same); the attributes are
// those of RFC 7512 section 2.4, separated by "&". Percent-encoding (RFC 3986 section 2.1) is decoded in paths and
// values; "%", "?", "#" and, in values, "&" have to be encoded, and in the attributes of a token's path ";".
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "signing/SecretText.h"

namespace vextk {

// What a pkcs11: URI says besides the PIN.
struct TokenUri {
    // The path's attributes, decoded, by name; each one of RFC 7512 section 2.3. "id" is bytes, "type" is "cert" or
    // "private", "slot-id" is decimal without leading zeros.
    std::map<std::string, std::string, std::less<>> attributes;
    std::string strModulePath;  // absolute; empty when there is none
    std::string strModuleName;  // empty when there is none
};

struct StoreUri {
    enum class Kind { kDemo, kFile, kToken };

    Kind kind = Kind::kDemo;
    std::string strPath;                      // of Kind::kFile
    TokenUri token;                           // of Kind::kToken
    std::optional<SecretText> pin;            // pin-value
    std::optional<std::string> strPinSource;  // path of the file that holds the PIN
    bool bListAll = false;                    // list=all
};

// Throws VCTK_E_URI_MALFORMED or VCTK_E_URI_SCHEME. The failure's detail quotes nothing that could hold a PIN.
StoreUri ParseStoreUri(std::string_view text);

}  // namespace vextk
