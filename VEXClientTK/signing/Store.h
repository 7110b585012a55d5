// Opens the stores that identities come from.
#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "signing/Chain.h"
#include "signing/Failure.h"
#include "signing/Identity.h"
#include "signing/SecretText.h"
#include "signing/StoreUri.h"
#include "timestamp/Stamp.h"

namespace vextk {

// Immutable; the objects of several handles use it at the same time.
struct OpenedStore {
    IdentitiesPtr identities;  // not null; other stores may have the same
    bool bListAll = false;     // the certificate list also shows certificates that cannot sign
    ChainPart chain = ChainPart::kNone;
    Authorities authorities = {};    // for the chains; empty with ChainPart::kNone
    bool bListCertificates = false;  // the certificate list also has the names and the certificates themselves
    // Why the store could not be opened; then it has no certificates. Only with errors=handle in its URI.
    std::optional<Failure> failure = std::nullopt;
    std::optional<vextimestamp::Settings> stamp = std::nullopt;  // nothing: P7 signatures are not time-stamped
    bool bStampsOnly = false;  // of a stamp: URI; it has no certificates, and P7 signatures are the input
};
using OpenedStorePtr = std::shared_ptr<const OpenedStore>;

// The certificates of the store that the URI names, which is none of Kind::kHandle. At least one has its private key,
// except with bListAll and with bStampsOnly. Throws one of the store, PIN and token numbers of VCTKError.h and what
// MakeStampSettings throws, unless the URI has errors=handle.
OpenedStorePtr OpenStore(StoreUri uri);

// The certificates in the bytes of a PKCS #12 or PEM file, in the file's order; in a PKCS #12 file, those in encrypted
// parts come last. Each comes once, with its private key if the file has it. pPin may be null. Throws one of the store
// and PIN numbers of VCTKError.h.
Identities ReadIdentities(std::string_view bytes, const SecretText* pPin);

}  // namespace vextk
