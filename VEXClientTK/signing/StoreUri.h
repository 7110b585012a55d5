// The initialisation text: a URI that says where the signing certificates are.
//
//   demo:                                   the user's demo store, created on first use
//   file:/path/keys.p12?pin-value=1234      a PKCS #12 or PEM file and its PIN
//   file:/path/keys.p12?pin-source=file:/path/pin
//   pkcs11:token=Card;id=%01?pin-value=1234 the certificates on a token, see RFC 7512
//   handle:1447231492                       the store that an open signing object has; the number is its handle
//
// After the "?", except with handle:
//   list=all                       the certificate list also shows certificates that cannot sign, and why
//   list=certificates              each record of the certificate list has the certificate and those of its issuers
//   chain=store                    a P7 with the signer's certificate also has those of its issuers, without the root
//   chain=root                     the same, with the root
//   chain-source=file:/path.pem    certificates of issuers that the store does not have; only with chain
//   errors=handle                  if the store cannot be opened, there is a handle nevertheless; it tells why
//
// The path is absolute, as in RFC 8089 ("file:///path" and "file://localhost/path" are the same); the attributes are
// those of RFC 7512 section 2.4, separated by "&". Percent-encoding (RFC 3986 section 2.1) is decoded in paths and
// values. "%", "?" and "#" have to be encoded, "&" too in values, and ";" too in the attributes of a token's path.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "signing/SecretText.h"

namespace vextk {

// The parts of a pkcs11: URI, except the PIN.
struct TokenUri {
    // The attributes of the path by name, decoded; all are of RFC 7512 section 2.3. "id" is bytes, "type" is "cert" or
    // "private", "slot-id" is decimal without leading zeros.
    std::map<std::string, std::string, std::less<>> attributes;
    std::string strModulePath;  // absolute; empty if not given
    std::string strModuleName;  // empty if not given
};

// The certificates of issuers that are put into a P7 beside the signer's.
enum class ChainPart { kNone, kWithoutRoot, kWithRoot };

struct StoreUri {
    enum class Kind { kDemo, kFile, kToken, kHandle };

    Kind kind = Kind::kDemo;
    std::string strPath;                      // for Kind::kFile
    TokenUri token;                           // for Kind::kToken
    std::uintptr_t nHandle = 0;               // for Kind::kHandle; 0: the text has no number
    std::optional<SecretText> pin;            // pin-value
    std::optional<std::string> strPinSource;  // the path of a file with the PIN
    bool bListAll = false;                    // list=all
    bool bListCertificates = false;           // list=certificates
    ChainPart chain = ChainPart::kNone;       // chain
    std::string strChainSource;               // the path of chain-source; empty if not given
    bool bErrorsInHandle = false;             // errors=handle
};

// Throws VCTK_E_URI_MALFORMED or VCTK_E_URI_SCHEME. The error text quotes no part of the URI that could hold a PIN.
StoreUri ParseStoreUri(std::string_view text);

}  // namespace vextk
