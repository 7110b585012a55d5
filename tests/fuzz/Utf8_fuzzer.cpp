// The UTF-8 decoder and encoder. A text that the decoder accepts encodes back to the same bytes, or to fewer if it has
// Java's surrogate pairs. A text that the encoder accepts decodes back to the same characters. Lengths are exact.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "Require.h"
#include "posix/Utf8.h"

namespace {

// Returns a heap block of the exact length, so that AddressSanitizer sees a read behind it.
std::vector<char> Encode(const std::wstring& strText) {
    const std::optional<std::size_t> cb = vexposix::EncodedLength(strText);
    Require(cb.has_value());
    std::vector<char> bytes(*cb);
    vexposix::EncodeUtf8(strText, bytes.data(), bytes.size());
    return bytes;
}

std::wstring Decode(std::string_view text) {
    const std::optional<std::size_t> cch = vexposix::DecodedLength(text);
    Require(cch.has_value());
    std::wstring strText(*cch, L'\0');
    vexposix::DecodeUtf8(text, strText.data(), strText.size());
    return strText;
}

std::string_view View(const std::vector<char>& bytes) {
    return {bytes.data(), bytes.size()};
}

void CheckNarrow(std::string_view text) {
    if (!vexposix::DecodedLength(text)) {
        return;
    }
    const std::wstring strText = Decode(text);
    const std::vector<char> again = Encode(strText);
    Require(Decode(View(again)) == strText);
    // A pair has six bytes and its character four. Only encoded surrogates begin with ED and a byte from A0.
    std::size_t cPairs = 0;
    for (std::size_t i = 0; i + 1 < text.size(); ++i) {
        cPairs += text[i] == '\xED' && static_cast<unsigned char>(text[i + 1]) >= 0xA0;
    }
    Require(cPairs % 2 == 0 && again.size() == text.size() - cPairs);
    Require(cPairs != 0 || View(again) == text);
}

void CheckWide(const std::uint8_t* pbData, std::size_t cbData) {
    std::wstring strText(cbData / sizeof(wchar_t), L'\0');
    if (!strText.empty()) {
        std::memcpy(strText.data(), pbData, strText.size() * sizeof(wchar_t));
    }
    if (vexposix::EncodedLength(strText)) {
        Require(Decode(View(Encode(strText))) == strText);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pbData, std::size_t cbData) {
    CheckNarrow({reinterpret_cast<const char*>(pbData), cbData});
    CheckWide(pbData, cbData);
    return 0;
}
