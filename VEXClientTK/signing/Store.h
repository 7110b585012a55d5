// Where identities come from.
#pragma once

#include <string_view>

#include "signing/Identity.h"
#include "signing/SecretText.h"

namespace vextk {

// The identities of the store that the initialisation text (StoreUri.h) names; at least one.
// Throws one of the store, URI and PIN numbers of VCTKError.h.
Identities OpenStore(std::string_view text);

// The identities in the bytes of a PKCS #12 or PEM file: every certificate whose RSA or EC private key is there as
// well, in the file's order. pPin may be null. Throws one of the store and PIN numbers of VCTKError.h.
Identities ReadIdentities(std::string_view bytes, const SecretText* pPin);

}  // namespace vextk
