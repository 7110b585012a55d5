// Describes in words which of a store's certificates cannot sign.
#pragma once

#include <string>

#include "signing/Identity.h"

namespace vextk {

// Leaves out copies of a certificate. Keeps a copy with a private key if there is one, else one whose key cannot sign.
Identities WithoutCopies(Identities identities);

// "2 passed over: 1 expired on 2026-03-01, 1 not for signing". cFiltered: how many more do not pass the filters. Empty:
// no certificate was passed over.
std::string PassedOverText(const Identities& passedOver, size_t cFiltered, std::time_t now);

// One word for the certificate list, such as "signs", "expired" or "key-too-short:1024".
std::string StateText(const Identity& identity, std::time_t now);

}  // namespace vextk
