// A digest that only this process can compute, to compare secrets that it does not keep.
#pragma once

#include <array>
#include <string>
#include <string_view>

namespace vextk {

// Immutable; any thread may use it. A copy computes the same digests.
class KeyedDigest {
public:
    // With a new random key. Throws VCTK_E_INTERNAL.
    KeyedDigest();

    // Throws VCTK_E_INTERNAL.
    std::string Of(std::string_view text) const;

private:
    std::array<unsigned char, 32> m_key{};
};

}  // namespace vextk
