#include "Base64.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace vexsign {
namespace {

constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned int kBitsPerByte = 8;
constexpr unsigned int kBitsPerDigit = 6;
constexpr std::size_t kDigitsPerGroup = 4;
constexpr std::size_t kBytesPerGroup = 3;

bool IsBlank(char ch) {
    return ch == ' ' || ch == '\t' || ch == '\r' || ch == '\n';
}

// EVP_EncodeBlock takes an int for the length, and needs room for a NUL.
void AppendEncoded(std::string_view bytes, std::string& text) {
    constexpr std::size_t kPiece = kBytesPerGroup << 18U;
    while (!bytes.empty()) {
        const std::string_view piece = bytes.substr(0, kPiece);
        const std::size_t nBegin = text.size();
        const std::size_t cchDigits = (piece.size() + kBytesPerGroup - 1) / kBytesPerGroup * kDigitsPerGroup;
        text.resize(nBegin + cchDigits + 1);
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()) + nBegin,
                        reinterpret_cast<const unsigned char*>(piece.data()), static_cast<int>(piece.size()));
        text.pop_back();
        bytes.remove_prefix(piece.size());
    }
}

}  // namespace

void Base64Encoder::Append(std::string_view bytes, std::string& text) {
    if (!m_strRest.empty()) {
        const std::size_t cbTaken = std::min(kBytesPerGroup - m_strRest.size(), bytes.size());
        m_strRest.append(bytes, 0, cbTaken);
        bytes.remove_prefix(cbTaken);
        if (m_strRest.size() < kBytesPerGroup) {
            return;
        }
        AppendEncoded(m_strRest, text);
    }
    const std::size_t cbRest = bytes.size() % kBytesPerGroup;
    m_strRest.assign(bytes.substr(bytes.size() - cbRest));
    bytes.remove_suffix(cbRest);
    AppendEncoded(bytes, text);
}

void Base64Encoder::Finish(std::string& text) {
    AppendEncoded(m_strRest, text);
    m_strRest.clear();
}

std::string EncodeBase64(std::string_view bytes) {
    std::string text;
    Base64Encoder encoder;
    encoder.Append(bytes, text);
    encoder.Finish(text);
    return text;
}

std::optional<std::string> DecodeBase64(std::string_view text) {
    std::string bytes;
    bytes.reserve(text.size() / kDigitsPerGroup * kBytesPerGroup);
    std::uint32_t uBits = 0;
    unsigned int cBits = 0;
    std::size_t cDigits = 0;
    std::size_t cPadding = 0;
    for (const char ch : text) {
        if (IsBlank(ch)) {
            continue;
        }
        if (ch == '=') {
            ++cPadding;
            continue;
        }
        const std::size_t nDigit = kDigits.find(ch);
        if (nDigit == std::string_view::npos || cPadding > 0) {
            return std::nullopt;
        }
        ++cDigits;
        uBits = (uBits << kBitsPerDigit) | static_cast<std::uint32_t>(nDigit);
        cBits += kBitsPerDigit;
        if (cBits >= kBitsPerByte) {
            cBits -= kBitsPerByte;
            bytes += static_cast<char>(static_cast<unsigned char>(uBits >> cBits));
        }
    }
    constexpr std::size_t kMostPadding = 2;
    if ((cDigits + cPadding) % kDigitsPerGroup != 0 || cPadding > kMostPadding) {
        return std::nullopt;
    }
    return bytes;
}

}  // namespace vexsign
