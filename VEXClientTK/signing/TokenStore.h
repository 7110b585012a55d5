// Tokens (smart cards, USB keys, hardware security modules) as stores, through PKCS #11.
#pragma once

#include "signing/Identity.h"
#include "signing/SecretText.h"
#include "signing/StoreUri.h"

namespace vextk {

// The certificates on the token that the URI describes, each once, as far as the URI's id and object let them; with its
// private key each for which there is an RSA or EC key of the same CKA_ID. pPin may be null. Throws one of the
// store, PIN and token numbers of VCTKError.h.
Identities OpenTokenStore(const TokenUri& uri, const SecretText* pPin);

}  // namespace vextk
