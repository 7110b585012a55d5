#include "Base64.h"

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

}  // namespace

std::string EncodeBase64(std::string_view bytes) {
    std::string text;
    text.reserve((bytes.size() + kBytesPerGroup - 1) / kBytesPerGroup * kDigitsPerGroup);
    std::uint32_t uBits = 0;
    unsigned int cBits = 0;
    for (const char ch : bytes) {
        uBits = (uBits << kBitsPerByte) | static_cast<unsigned char>(ch);
        for (cBits += kBitsPerByte; cBits >= kBitsPerDigit; cBits -= kBitsPerDigit) {
            text += kDigits[(uBits >> (cBits - kBitsPerDigit)) % kDigits.size()];
        }
    }
    if (cBits > 0) {
        text += kDigits[(uBits << (kBitsPerDigit - cBits)) % kDigits.size()];
    }
    while (text.size() % kDigitsPerGroup != 0) {
        text += '=';
    }
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
