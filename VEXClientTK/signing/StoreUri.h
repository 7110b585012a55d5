// The initialisation text: a URI that says where the signing certificates are.
//
//   demo:                                   the user's demo store, created on first use
//   file:/path/keys.p12?pin-value=1234      a PKCS #12 or PEM file and its PIN
//   file:/path/keys.p12?pin-source=file:/path/pin
//   pkcs11:token=Card;id=%01?pin-value=1234 the certificates on a token, see RFC 7512
//   handle:1447231492                       the store that an open signing object has; the number is its handle
//   stamp:                                  no certificates; time-stamps signatures that exist already
//
// After the "?", except with handle:
//   list=all                       the certificate list also shows certificates that cannot sign, and why
//   list=certificates              each record of the certificate list has the certificate and those of its issuers
//   chain=store                    a P7 with the signer's certificate also has those of its issuers, without the root
//   chain=root                     the same, with the root
//   chain-source=file:/path.pem    certificates of issuers that the store does not have; only with chain
//   errors=handle                  if the store cannot be opened, there is a handle nevertheless; it tells why
//   tsa=http://host/path           an authority that time-stamps P7 signatures; several are tried in order
//   tsa-digest=SHA-384             the digest of a signature that the authority sees; with tsa or stamp:
//   tsa-timeout=10000              milliseconds for a stamp, whatever the number of authorities; with tsa
//   tsa-ca=file:/path.pem          certificates; the authority's has to lead to one of them; with tsa or stamp:
//   tsa-policy=1.2.3.4             the policy that the stamp has to be made under; with tsa or stamp:
// A stamp: takes these five and errors, and nothing else.
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
#include <vector>

#include "signing/SecretText.h"

namespace vextk {

// The parts of a pkcs11: URI, except the PIN.
struct TokenUri {
    // The attributes of the path by name, decoded; all are of RFC 7512 section 2.3. "id" is bytes, "type" is "cert" or
    // "private", "slot-id" is decimal without leading zeros, "library-version" has a point.
    std::map<std::string, std::string, std::less<>> attributes;
    std::string strModulePath;  // absolute; empty if not given
    std::string strModuleName;  // empty if not given
};

// The certificates of issuers that are put into a P7 beside the signer's.
enum class ChainPart { kNone, kWithoutRoot, kWithRoot };

// How P7 signatures are time-stamped.
struct StampUri {
    std::vector<std::string> authorities;  // tsa, in the order of the text; http:// URLs of visible ASCII characters
    std::string strDigest;                 // tsa-digest; empty if not given
    std::string strPolicy;                 // tsa-policy, dotted decimal; empty if not given
    std::string strTrusted;                // the path of tsa-ca; empty if not given
    std::uint32_t uMilliseconds = 0;       // tsa-timeout; 0 if not given
};

struct StoreUri {
    enum class Kind { kDemo, kFile, kToken, kHandle, kStamp };

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
    StampUri stamp;
};

// Throws VCTK_E_URI_MALFORMED or VCTK_E_URI_SCHEME. The error text quotes no part of the URI that could hold a PIN.
StoreUri ParseStoreUri(std::string_view text);

}  // namespace vextk
