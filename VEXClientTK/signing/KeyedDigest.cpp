#include "signing/KeyedDigest.h"

#include <openssl/hmac.h>
#include <openssl/rand.h>

#include "signing/OpenSsl.h"

namespace vextk {

KeyedDigest::KeyedDigest() {
    RequireOpenSsl(RAND_bytes(m_key.data(), static_cast<int>(m_key.size())) == 1);
}

std::string KeyedDigest::Of(std::string_view text) const {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int cbDigest = 0;
    RequireOpenSsl(HMAC(EVP_sha256(), m_key.data(), static_cast<int>(m_key.size()),
                        reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data(),
                        &cbDigest) != nullptr);
    return {reinterpret_cast<const char*>(digest.data()), cbDigest};
}

}  // namespace vextk
