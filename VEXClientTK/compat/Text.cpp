// Conversion between narrow and wide text. Both encodings have the same rules for lengths and buffer sizes.

#include <climits>
#include <cstring>
#include <cwchar>
#include <string_view>

#include "compat/LastError.h"
#include "compat/LocaleText.h"
#include "posix/Utf8.h"

namespace vextk {
namespace {

using vexposix::DecodedLength;
using vexposix::DecodeUtf8;
using vexposix::EncodedLength;
using vexposix::EncodeUtf8;

int Fail(DWORD dwError) {
    SetLastErrorNumber(dwError);
    return 0;
}

bool IsKnownCodePage(UINT uCodePage) {
    return uCodePage == CP_ACP || uCodePage == CP_UTF8;
}

// A source length of -1 means the text up to its terminator, which is included.
template <typename Char>
std::basic_string_view<Char> SourceText(const Char* pSource, int nLength) {
    const bool bTerminated = nLength == -1;
    return {pSource, bTerminated ? std::char_traits<Char>::length(pSource) + 1 : static_cast<std::size_t>(nLength)};
}

// The value to return for a result of nNeeded units. 0: a failure, and the last error is set.
int SettleLength(std::size_t nNeeded, bool bTerminated, int nRoom, bool bQuery) {
    if (bQuery) {
        return nNeeded <= INT_MAX ? static_cast<int>(nNeeded) : Fail(ERROR_ARITHMETIC_OVERFLOW);
    }
    const auto nAvailable = static_cast<std::size_t>(nRoom);
    if (nNeeded <= nAvailable) {
        return static_cast<int>(nNeeded);
    }
    // There is room for everything except the terminator. Callers with such a buffer write the terminator themselves.
    if (bTerminated && nNeeded - 1 == nAvailable) {
        return nRoom;
    }
    return Fail(ERROR_INSUFFICIENT_BUFFER);
}

// measure(text) returns the length of the result. write(text, length) stores that many units of it.
template <typename From, typename To, typename Measure, typename Write>
int Convert(const From* pSource, int nSourceLength, To* pOut, int nRoom, Measure measure, Write write) {
    const bool bQuery = pOut == nullptr || nRoom == 0;
    if (pSource == nullptr || nSourceLength == 0 || nSourceLength < -1 || (!bQuery && nRoom < 0) ||
        static_cast<const void*>(pSource) == static_cast<const void*>(pOut)) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    const std::basic_string_view<From> text = SourceText(pSource, nSourceLength);
    const std::optional<std::size_t> nNeeded = measure(text);
    // The length is 0 when the locale drops the whole text. That counts as a failure, because a result of 0 means one.
    if (nNeeded.value_or(0) == 0) {
        return Fail(ERROR_NO_UNICODE_TRANSLATION);
    }
    const int nResult = SettleLength(*nNeeded, nSourceLength == -1, nRoom, bQuery);
    if (nResult != 0 && !bQuery) {
        const bool bAll = static_cast<std::size_t>(nResult) == *nNeeded;
        write(bAll ? text : text.substr(0, text.size() - 1), static_cast<std::size_t>(nResult));
    }
    return nResult;
}

// The first character of a default text. 0: in the current locale it does not begin with a character.
wchar_t DefaultCharacter(LPCSTR pszDefault) {
    std::mbstate_t state{};
    wchar_t ch = 0;
    const std::size_t cb = std::mbrtowc(&ch, pszDefault, std::strlen(pszDefault), &state);
    return cb <= MB_LEN_MAX ? ch : L'\0';
}

}  // namespace
}  // namespace vextk

using namespace vextk;

int MultiByteToWideChar(UINT uCodePage, DWORD, LPCSTR lpMultiByteStr, int cbMultiByte, LPWSTR lpWideCharStr,
                        int cchWideChar) {
    if (!IsKnownCodePage(uCodePage)) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (uCodePage == CP_UTF8) {
        return Convert(lpMultiByteStr, cbMultiByte, lpWideCharStr, cchWideChar, DecodedLength,
                       [=](std::string_view text, std::size_t cch) { DecodeUtf8(text, lpWideCharStr, cch); });
    }
    bool bAsUtf8 = false;
    return Convert(
        lpMultiByteStr, cbMultiByte, lpWideCharStr, cchWideChar,
        [&](std::string_view text) {
            const std::optional<std::size_t> cch = DecodedLengthAsUtf8(text);
            bAsUtf8 = cch.has_value();
            return bAsUtf8 ? cch : DecodeLocale(text, {});
        },
        [&](std::string_view text, std::size_t cch) {
            if (bAsUtf8) {
                DecodeUtf8(text, lpWideCharStr, cch);
            } else {
                DecodeLocale(text, {lpWideCharStr, cch});
            }
        });
}

int WideCharToMultiByte(UINT uCodePage, DWORD, LPCWSTR lpWideCharStr, int cchWideChar, LPSTR lpMultiByteStr,
                        int cbMultiByte, LPCSTR lpDefaultChar, BOOL* lpUsedDefaultChar) {
    if (!IsKnownCodePage(uCodePage)) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (uCodePage == CP_UTF8) {
        if (lpDefaultChar != nullptr || lpUsedDefaultChar != nullptr) {
            return Fail(ERROR_INVALID_PARAMETER);
        }
        return Convert(lpWideCharStr, cchWideChar, lpMultiByteStr, cbMultiByte, EncodedLength,
                       [=](std::wstring_view text, std::size_t cb) { EncodeUtf8(text, lpMultiByteStr, cb); });
    }
    Substitute substitute{lpDefaultChar != nullptr ? DefaultCharacter(lpDefaultChar) : L'\0'};
    if (lpDefaultChar != nullptr && substitute.ch == L'\0') {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    Substitute* const pSubstitute = lpDefaultChar != nullptr ? &substitute : nullptr;
    bool bAsUtf8 = false;
    const int nResult = Convert(
        lpWideCharStr, cchWideChar, lpMultiByteStr, cbMultiByte,
        [&](std::wstring_view text) {
            const std::optional<std::size_t> cb = EncodedLengthAsUtf8(text);
            bAsUtf8 = cb.has_value();
            return bAsUtf8 ? cb : EncodeLocale(text, {}, pSubstitute);
        },
        [&](std::wstring_view text, std::size_t cb) {
            if (bAsUtf8) {
                EncodeUtf8(text, lpMultiByteStr, cb);
            } else {
                EncodeLocale(text, {lpMultiByteStr, cb}, pSubstitute);
            }
        });
    if (nResult != 0 && lpUsedDefaultChar != nullptr) {
        *lpUsedDefaultChar = substitute.bUsed ? TRUE : FALSE;
    }
    return nResult;
}

int lstrlenW(LPCWSTR lpString) {
    const std::size_t cch = lpString != nullptr ? std::wcslen(lpString) : 0;
    return cch < INT_MAX ? static_cast<int>(cch) : INT_MAX;
}
