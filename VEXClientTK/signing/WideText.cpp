#include "signing/WideText.h"

#include <algorithm>
#include <cstdlib>
#include <cwctype>

#include "signing/OpenSsl.h"

namespace vextk {

std::optional<std::wstring> WideFromLocale(const std::string& text) {
    const size_t cch = std::mbstowcs(nullptr, text.c_str(), 0);
    if (cch == static_cast<size_t>(-1)) {
        return std::nullopt;
    }
    std::wstring wide(cch, L'\0');
    // Less only when the locale has changed meanwhile.
    return std::mbstowcs(wide.data(), text.c_str(), cch) == cch ? std::optional(std::move(wide)) : std::nullopt;
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

std::wstring LowerCase(std::wstring text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](wchar_t ch) { return static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(ch))); });
    return text;
}

}  // namespace vextk
