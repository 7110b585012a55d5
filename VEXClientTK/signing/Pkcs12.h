// PKCS #12 files (RFC 7292), read bag by bag. OpenSSL's functions that read one whole stop at its first private key.
#pragma once

#include <optional>
#include <string_view>

#include "signing/SecretText.h"
#include "signing/StoreContent.h"

namespace vextk {

// Every certificate and private key in the file; nothing when the bytes are no PKCS #12 file. pPin may be null, which
// does for a file without a PIN or with an empty one. Throws one of the store and PIN numbers of VCTKError.h.
std::optional<StoreContent> ReadPkcs12(std::string_view bytes, const SecretText* pPin);

}  // namespace vextk
