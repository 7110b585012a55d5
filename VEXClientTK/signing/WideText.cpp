#include "signing/WideText.h"

#include <algorithm>
#include <cwchar>

#include "posix/Utf8.h"
#include "signing/OpenSsl.h"

namespace vextk {
namespace {

// The letters first, first + step ... last. Adding nToSmall to a letter makes it small.
struct Capitals {
    wchar_t chFirst;
    wchar_t chLast;
    wchar_t nStep;
    wchar_t nToSmall;
};
constexpr Capitals kCapitals[] = {
    {0x03C2, 0x03C2, 1, 1},  // the small sigma at the end of a word
    {0x0041, 0x005A, 1, 32},  {0x00C0, 0x00D6, 1, 32}, {0x00D8, 0x00DE, 1, 32}, {0x0100, 0x012E, 2, 1},
    {0x0132, 0x0136, 2, 1},   {0x0139, 0x0147, 2, 1},  {0x014A, 0x0176, 2, 1},  {0x0178, 0x0178, 1, -121},
    {0x018F, 0x018F, 1, 202}, {0x0179, 0x017D, 2, 1},  {0x01A0, 0x01A0, 1, 1},  {0x01AF, 0x01AF, 1, 1},
    {0x01CD, 0x01DB, 2, 1},   {0x01DE, 0x01EE, 2, 1},  {0x01F8, 0x021E, 2, 1},  {0x0222, 0x0232, 2, 1},
    {0x0386, 0x0386, 1, 38},  {0x0388, 0x038A, 1, 37}, {0x038C, 0x038C, 1, 64}, {0x038E, 0x038F, 1, 63},
    {0x0391, 0x03A1, 1, 32},  {0x03A3, 0x03AB, 1, 32}, {0x0400, 0x040F, 1, 80}, {0x0410, 0x042F, 1, 32},
    {0x0460, 0x0480, 2, 1},   {0x048A, 0x04BE, 2, 1},  {0x04C0, 0x04C0, 1, 15}, {0x04C1, 0x04CD, 2, 1},
    {0x04D0, 0x052E, 2, 1},   {0x0531, 0x0556, 1, 48}, {0x1E00, 0x1E94, 2, 1},  {0x1E9E, 0x1E9E, 1, -7615},
    {0x1EA0, 0x1EFE, 2, 1},   {0xFF21, 0xFF3A, 1, 32},
};

wchar_t SmallLetter(wchar_t ch) {
    for (const Capitals& capitals : kCapitals) {
        if (capitals.chFirst <= ch && ch <= capitals.chLast && (ch - capitals.chFirst) % capitals.nStep == 0) {
            return ch + capitals.nToSmall;
        }
    }
    return ch;
}

}  // namespace

std::optional<std::wstring> WideFromLocale(const std::string& text) {
    std::wstring wide;
    std::mbstate_t state{};
    // One by one: mbstowcs takes a character that the text's end cuts off for the end.
    for (size_t i = 0; i < text.size();) {
        wchar_t ch = L'\0';
        const size_t cb = std::mbrtowc(&ch, text.data() + i, text.size() - i, &state);
        if (cb == 0 || cb > text.size() - i) {  // (size_t)-1 or -2: wrong bytes, or too few
            return std::nullopt;
        }
        wide += ch;
        i += cb;
    }
    return wide;
}

std::wstring WideFromUtf8(const std::string& text) {
    std::wstring wide;
    const auto* pbText = reinterpret_cast<const unsigned char*>(text.data());
    for (size_t i = 0; i < text.size();) {
        unsigned long ulCharacter = 0;
        const int cb = UTF8_getc(pbText + i, static_cast<int>(text.size() - i), &ulCharacter);
        wide += static_cast<wchar_t>(cb > 0 ? ulCharacter : pbText[i]);
        i += cb > 0 ? static_cast<size_t>(cb) : 1;
    }
    return wide;
}

std::string Utf8FromWide(const std::wstring& text) {
    std::string bytes;
    for (const wchar_t ch : text) {
        unsigned char abCharacter[6];
        const int cb = UTF8_putc(abCharacter, sizeof abCharacter, static_cast<unsigned long>(ch));
        bytes.append(reinterpret_cast<const char*>(abCharacter), static_cast<size_t>(std::max(cb, 0)));
    }
    return bytes;
}

std::optional<std::string> Utf8FromUtf16(std::string_view bytes) {
    std::wstring wide;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
        const auto ch =
            static_cast<wchar_t>(static_cast<unsigned char>(bytes[i]) << 8 | static_cast<unsigned char>(bytes[i + 1]));
        const bool bLow = ch >= 0xDC00 && ch <= 0xDFFF;
        if (bLow && !wide.empty() && wide.back() >= 0xD800 && wide.back() <= 0xDBFF) {
            wide.back() = 0x10000 + ((wide.back() - 0xD800) << 10) + (ch - 0xDC00);
        } else {
            wide += ch;
        }
    }
    const std::optional<size_t> cb = vexposix::EncodedLength(wide);  // nothing for half a pair
    if (bytes.size() % 2 != 0 || !cb || wide.find(L'\0') != std::wstring::npos) {
        return std::nullopt;
    }
    std::string utf8(*cb, '\0');
    vexposix::EncodeUtf8(wide, utf8.data(), *cb);
    return utf8;
}

std::wstring FoldCase(std::wstring text) {
    std::transform(text.begin(), text.end(), text.begin(), SmallLetter);
    return text;
}

bool IsBlank(wchar_t ch) {
    return (ch >= 0x09 && ch <= 0x0D) || ch == 0x20 || ch == 0x85 || ch == 0xA0 || ch == 0x1680 ||
           (ch >= 0x2000 && ch <= 0x200A) || ch == 0x2028 || ch == 0x2029 || ch == 0x202F || ch == 0x205F ||
           ch == 0x3000;
}

}  // namespace vextk
