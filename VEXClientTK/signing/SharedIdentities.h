// What store files hold, shared by all objects of the process that use the same content.
#pragma once

#include <string_view>

#include "signing/Identity.h"
#include "signing/SecretText.h"

namespace vextk {

// What ReadIdentities (Store.h) returns for these bytes and this PIN. While one of its results is in use, the next call
// with the same bytes and the same PIN returns that one. Threads that call it at the same time wait until one of them
// has read the bytes, and share its failure, too. When the last user of a result has gone, nothing of it is kept.
IdentitiesPtr ReadSharedIdentities(std::string_view bytes, const SecretText* pPin);

}  // namespace vextk
