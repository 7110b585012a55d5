// Which of a store's certificates cannot sign, in words.
#pragma once

#include <string>

#include "signing/Identity.h"

namespace vextk {

// Each certificate once; of several copies one that comes with its key.
Identities WithoutCopies(Identities identities);

// "2 passed over: 1 expired on 2026-03-01, 1 not for signing". cFiltered: how many more do not pass the filters. Empty
// when there is nothing to tell.
std::string PassedOverText(const Identities& passedOver, size_t cFiltered, std::time_t now);

// One word for the certificate list, such as "signs", "expired" or "key-too-short:1024".
std::string StateText(const Identity& identity, std::time_t now);

}  // namespace vextk
