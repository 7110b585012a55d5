// Reads PKCS #12 files (RFC 7292) bag by bag. OpenSSL's functions for a whole file return only its first private key.
#pragma once

#include <optional>
#include <string_view>

#include "signing/SecretText.h"
#include "signing/StoreContent.h"

namespace vextk {

// Every certificate and private key in the file; nothing if the bytes are not a PKCS #12 file. pPin may be null if the
// file has no PIN or an empty one. Throws one of the store and PIN numbers of VCTKError.h.
std::optional<StoreContent> ReadPkcs12(std::string_view bytes, const SecretText* pPin);

// Whether bytes that are no PKCS #12 file begin as one: the file was cut off or damaged.
bool BeginsLikePkcs12(std::string_view bytes);

}  // namespace vextk
