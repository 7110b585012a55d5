#include "Content.h"

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace vexsign::verify {

namespace {
constexpr std::size_t kPiece = std::size_t{256} * 1024;
}

Reader ReaderOf(std::string_view bytes) {
    return [bytes](char* pchBuffer, std::size_t cbBuffer) mutable {
        const std::size_t cb = bytes.copy(pchBuffer, cbBuffer);
        bytes.remove_prefix(cb);
        return cb;
    };
}

void ForEachPiece(const Reader& reader, const std::function<void(std::string_view)>& take) {
    const auto buffer = std::make_unique<char[]>(kPiece);
    std::size_t cb = kPiece;
    while (cb == kPiece) {
        cb = reader(buffer.get(), kPiece);
        take({buffer.get(), cb});
    }
}

std::string ReadContent(const Reader& reader) {
    std::string strContent;
    ForEachPiece(reader, [&](std::string_view piece) {
        if (piece.size() > kMostWhole - strContent.size()) {
            throw std::runtime_error("the content is larger than " + std::to_string(kMostWhole) +
                                     " bytes, the most that an Ed25519 or Ed448 signature is checked for");
        }
        strContent += piece;
    });
    return strContent;
}

void Digests::Want(const char* pszName) {
    if (std::optional<Hash> hash = Hash::Find(pszName)) {
        m_hashes.try_emplace(pszName, std::move(*hash));
    }
}

void Digests::Add(std::string_view bytes) {
    for (auto& [strName, hash] : m_hashes) {
        hash.Add(bytes);
    }
}

void Digests::Finish() {
    for (auto& [strName, hash] : m_hashes) {
        m_results.emplace(strName, hash.Finish());
    }
}

const std::string* Digests::Find(const char* pszName) const {
    const auto found = m_results.find(std::string_view(pszName));
    return found == m_results.end() ? nullptr : &found->second;
}

}  // namespace vexsign::verify
