// Which of a store's private keys belongs to which certificate.
#pragma once

#include <vector>

#include "signing/StoreContent.h"

namespace vextk {

// The private key of each certificate, null if there is none. The content still owns the keys. The time is proportional
// to the number of keys and certificates, whether they match or not.
std::vector<EVP_PKEY*> KeysOf(const StoreContent& content);

}  // namespace vextk
