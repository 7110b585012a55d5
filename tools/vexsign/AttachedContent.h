// Puts the content into a CMS SignedData that was signed without it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vexsign {

// What comes before and after the content in the attached SignedData.
struct ContentFrame {
    std::string strBefore;
    std::string strAfter;
};

// The largest SignedData with its content. OpenSSL reads no larger one from a file.
inline constexpr std::uint64_t kMostAttached = 0x5FFFFFFC;
// The largest content. It leaves room for signature and certificates, so that too much data is refused before it is
// read.
inline constexpr std::uint64_t kMostContent = kMostAttached - 0x10000;

// detached: the SignedData (RFC 5652 section 5.1) without content, in DER. The signature does not depend on whether the
// content is there. Throws std::runtime_error if it is something else, or if the result would exceed kMostAttached.
ContentFrame FrameContent(std::string_view detached, std::uint64_t cbContent);

}  // namespace vexsign
