// The kinds of keys that the toolkit signs with.
#pragma once

#include <array>

namespace vextk {

// NIST SP 800-131A: shorter keys must not sign any more.
inline constexpr unsigned int kLeastRsaBits = 2048;
inline constexpr unsigned int kLeastEcBits = 224;

struct KeyType {
    const char* pszName;  // OpenSSL's
    unsigned int nLeastBits;
};
inline constexpr std::array kKeyTypes = {KeyType{"RSA", kLeastRsaBits}, KeyType{"RSA-PSS", kLeastRsaBits},
                                         KeyType{"EC", kLeastEcBits}, KeyType{"ED25519", 0}, KeyType{"ED448", 0}};

}  // namespace vextk
