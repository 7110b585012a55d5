// Where identities come from.
#pragma once

#include <string_view>

#include "signing/Identity.h"
#include "signing/SecretText.h"

namespace vextk {

struct OpenedStore {
    Identities identities;
    bool bListAll = false;  // the certificate list is to show what cannot sign, too
};

// The certificates of the store that the initialisation text (StoreUri.h) names; unless all are to be listed, at least
// one has its private key. Throws one of the store, URI and PIN numbers of VCTKError.h.
OpenedStore OpenStore(std::string_view text);

// The certificates in the bytes of a PKCS #12 or PEM file with the RSA and EC private keys that are there as well, each
// once, in the file's order. pPin may be null. Throws one of the store and PIN numbers of VCTKError.h.
Identities ReadIdentities(std::string_view bytes, const SecretText* pPin);

}  // namespace vextk
