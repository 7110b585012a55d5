// Which of a store's private keys belongs to which certificate.
#pragma once

#include <vector>

#include "signing/StoreContent.h"

namespace vextk {

// The private key of each certificate, null where there is none. One of the content's RSA or EC keys each; stays the
// content's. Takes time in proportion to the number of keys and certificates, whether they match or not.
std::vector<EVP_PKEY*> KeysOf(const StoreContent& content);

}  // namespace vextk
