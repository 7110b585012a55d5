// Opens the stores that identities come from.
#pragma once

#include <string_view>

#include "signing/Chain.h"
#include "signing/Identity.h"
#include "signing/SecretText.h"
#include "signing/StoreUri.h"

namespace vextk {

struct OpenedStore {
    Identities identities;
    bool bListAll = false;  // the certificate list also shows certificates that cannot sign
    ChainPart chain = ChainPart::kNone;
    Authorities authorities = {};    // for the chains; empty with ChainPart::kNone
    bool bListCertificates = false;  // the certificate list also has the certificates themselves
};

// The certificates of the store that the initialisation text (StoreUri.h) names. At least one has its private key,
// except with bListAll. Throws one of the store, URI, PIN and token numbers of VCTKError.h.
OpenedStore OpenStore(std::string_view text);

// The certificates in the bytes of a PKCS #12 or PEM file, in the file's order. Each comes once, with its private
// key if the file has it. pPin may be null. Throws one of the store and PIN numbers of VCTKError.h.
Identities ReadIdentities(std::string_view bytes, const SecretText* pPin);

}  // namespace vextk
