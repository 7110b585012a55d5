// Opens tokens (smart cards, USB keys, hardware security modules) as stores, through PKCS #11.
#pragma once

#include <string>

#include "signing/Identity.h"
#include "signing/SecretText.h"
#include "signing/StoreUri.h"

namespace vextk {

struct TokenIdentities {
    std::string strToken;  // its label
    Identities described;  // they match the URI's id and object
    Identities others;
};

// The certificates on the token that the URI describes, each once. One that matches has its private key if the token
// has a key of the same CKA_ID and of its type that may sign. pPin may be null. Throws one of the store,
// PIN and token numbers of VCTKError.h.
TokenIdentities OpenTokenStore(const TokenUri& uri, const SecretText* pPin);

}  // namespace vextk
