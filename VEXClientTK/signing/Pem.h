// Reads PEM files (RFC 7468, and the encryption of keys of RFC 1421) block by block. OpenSSL's own store reader treats
// any other block as an error. When it fails, it does not say whether the PIN or something else was wrong.
#pragma once

#include <optional>
#include <string_view>

#include "signing/SecretText.h"
#include "signing/StoreContent.h"

namespace vextk {

// Every certificate and private key in the text, in any order; other blocks are skipped. Nothing if the text has no
// block. pPin may be null if no key is encrypted. Throws one of the store and PIN numbers of VCTKError.h.
std::optional<StoreContent> ReadPem(std::string_view text, const SecretText* pPin);

}  // namespace vextk
