// PEM files (RFC 7468, and RFC 1421's encryption of keys), read block by block. OpenSSL's own reader of stores takes
// what is no certificate or key for a fault, and does not say whether a PIN or something else was wrong.
#pragma once

#include <optional>
#include <string_view>

#include "signing/SecretText.h"
#include "signing/StoreContent.h"

namespace vextk {

// Every certificate and private key in the text, in any order; other blocks are passed over. Nothing when there is no
// block in it. pPin may be null, which does for keys that are not encrypted. Throws one of the store and PIN numbers of
// VCTKError.h.
std::optional<StoreContent> ReadPem(std::string_view text, const SecretText* pPin);

}  // namespace vextk
