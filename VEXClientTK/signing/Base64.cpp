#include "signing/Base64.h"

#include <openssl/evp.h>

#include <climits>

#include "signing/Failure.h"

namespace vextk {
namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Bits of the last character before the padding that encode nothing and must be 0.
constexpr size_t UnusedBits(size_t cPadding) {
    return cPadding == 2 ? 0x0F : cPadding == 1 ? 0x03 : 0;
}

// OpenSSL's decoder accepts blanks at both ends and unused bits that are not 0. DecodeBase64 must not.
bool IsStrictBase64(std::string_view text) {
    if (text.size() % 4 != 0) {
        return false;
    }
    const size_t cchDigits = text.find_last_not_of('=') + 1;
    const size_t cPadding = text.size() - cchDigits;
    if (cPadding > 2 || text.substr(0, cchDigits).find_first_not_of(kAlphabet) != std::string_view::npos) {
        return false;
    }
    return cchDigits == 0 ? text.empty() : (kAlphabet.find(text[cchDigits - 1]) & UnusedBits(cPadding)) == 0;
}

}  // namespace

std::string EncodeBase64(const unsigned char* pbData, size_t cbData) {
    constexpr size_t kLargest = (static_cast<size_t>(INT_MAX) - 1) / 4 * 3;
    if (cbData > kLargest) {
        throw Failure(VCTK_E_TOO_LARGE);
    }
    std::string text((cbData + 2) / 3 * 4, '\0');  // its terminator takes the NUL that EVP_EncodeBlock adds
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), pbData, static_cast<int>(cbData));
    return text;
}

std::optional<std::vector<unsigned char>> DecodeBase64(std::string_view text) {
    if (text.size() > static_cast<size_t>(INT_MAX)) {
        throw Failure(VCTK_E_TOO_LARGE);
    }
    if (!IsStrictBase64(text)) {
        return std::nullopt;
    }
    std::vector<unsigned char> data(text.size() / 4 * 3);
    const int cbDecoded = EVP_DecodeBlock(data.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                          static_cast<int>(text.size()));
    if (cbDecoded != static_cast<int>(data.size())) {
        return std::nullopt;
    }
    data.resize(data.size() - (text.size() - (text.find_last_not_of('=') + 1)));
    return data;
}

}  // namespace vextk
