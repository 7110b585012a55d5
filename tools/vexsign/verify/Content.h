// The content that was signed, read once in pieces.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "vexsign/Hash.h"

namespace vexsign::verify {

// Fills the buffer, less only at the end, and returns the number of bytes. Throws std::runtime_error.
using Reader = std::function<std::size_t(char* pchBuffer, std::size_t cbBuffer)>;

Reader ReaderOf(std::string_view bytes);

// Passes the content on in pieces.
void ForEachPiece(const Reader& reader, const std::function<void(std::string_view)>& take);

// The largest content that is verified in one piece, for Ed25519 and Ed448 (P1).
inline constexpr std::size_t kMostWhole = 1610612733;
// Throws std::runtime_error if it is larger.
std::string ReadContent(const Reader& reader);

// Several digests of one content.
class Digests {
public:
    // pszName: of KnownDigest. Nothing happens if this OpenSSL does not have it.
    void Want(const char* pszName);
    void Add(std::string_view bytes);
    // Call it once, after the last byte.
    void Finish();
    // Null: it was not wanted, or this OpenSSL does not have it.
    const std::string* Find(const char* pszName) const;

private:
    std::map<std::string, Hash, std::less<>> m_hashes;
    std::map<std::string, std::string, std::less<>> m_results;
};

}  // namespace vexsign::verify
