// The hash of data that arrives in pieces.
#pragma once

#include <openssl/evp.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vexsign {

// Use it only after the toolkit has opened a store: a toolkit with OpenSSL may set OpenSSL up for itself first.
class Hash {
public:
    // strDigest: a digest's name as the toolkit takes it, in OpenSSL's or the JCA's spelling and in any case, with or
    // without "/PSS". Returns nothing for a name that OpenSSL does not know. Throws std::runtime_error.
    static std::optional<Hash> Find(std::string_view strDigest);

    // Both throw std::runtime_error.
    void Add(std::string_view bytes);
    std::string Finish();

private:
    struct Free {
        void operator()(EVP_MD_CTX* pContext) const { EVP_MD_CTX_free(pContext); }
    };
    explicit Hash(const EVP_MD* pAlgorithm);

    std::unique_ptr<EVP_MD_CTX, Free> m_context;
};

}  // namespace vexsign
