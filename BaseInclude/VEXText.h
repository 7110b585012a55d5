// Character algorithms of CString and CStringA. They work on plain texts and use no string class.
//
// Any thread. A null pointer is an empty text. Positions count characters from 0; "not found" is -1, or null for
// functions that return a pointer into the text. Case, classes and collation are those of the process locale. Narrow
// text is processed byte by byte, so only one-byte characters have a case.
#pragma once

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <string>
#include <string_view>
#include <type_traits>

#include "VEXForkPause.h"

template <typename TChar>
class CVEXText {
public:
    using View = std::basic_string_view<TChar>;
    using Text = std::basic_string<TChar>;

    static View Of(const TChar* psz) { return psz == nullptr ? View() : View(psz); }

    // At most nMost characters, up to the terminator; none when nMost is 0 or less.
    static View Of(const TChar* psz, int nMost) {
        if (psz == nullptr || nMost <= 0) {
            return View();
        }
        const std::size_t nRoom = static_cast<std::size_t>(nMost);
        if constexpr (bWide) {
            return View(psz, ::wcsnlen(psz, nRoom));
        } else {
            return View(psz, ::strnlen(psz, nRoom));
        }
    }

    // A length as the strings count it. A length that is too large becomes INT_MAX, which no block accepts.
    static int Length(std::size_t nLength) { return static_cast<int>(std::min<std::size_t>(nLength, INT_MAX)); }

    static int Position(std::size_t nPosition) { return nPosition == View::npos ? -1 : static_cast<int>(nPosition); }

    // ---- Parts of a counted text. Positions and counts out of range are limited to the text. ----

    static View Mid(View text, int nFirst, int nCount) {
        const std::size_t nFrom = std::min(Clamp(nFirst), text.size());
        return text.substr(nFrom, Clamp(nCount));
    }
    static View Right(View text, int nCount) {
        const std::size_t nTaken = std::min(Clamp(nCount), text.size());
        return text.substr(text.size() - nTaken);
    }
    static TChar At(View text, int nIndex) { return InRange(text, nIndex) ? text[Clamp(nIndex)] : TChar(0); }
    static bool InRange(View text, int nIndex) { return nIndex >= 0 && Clamp(nIndex) < text.size(); }

    // TWhat: a character or a View. An empty View is found where the search starts.
    template <typename TWhat>
    static int Find(View text, TWhat what, int nStart) {
        return Position(text.find(what, Clamp(nStart)));
    }
    static int FindLast(View text, TChar ch) { return Position(text.rfind(ch)); }

    // Replaces from left to right and does not search the replacements again. nReplaced: the number of replacements.
    static Text Replace(View text, View from, View to, int& nReplaced) {
        nReplaced = 0;
        Text result;
        std::size_t nPosition = 0;
        if (!from.empty()) {
            for (std::size_t nFound; (nFound = text.find(from, nPosition)) != View::npos; ++nReplaced) {
                result.append(text, nPosition, nFound - nPosition).append(to);
                nPosition = nFound + from.size();
            }
        }
        return result.append(text, nPosition);
    }
    static Text Insert(View text, int nIndex, View inserted) {
        return Text(text).insert(std::min(Clamp(nIndex), text.size()), inserted);
    }

    // ---- Terminated texts ----

    static const TChar* FindChar(const TChar* psz, TChar ch) {
        // A search for the terminator finds it.
        return ch == 0 ? End(psz) : Place(psz, Of(psz).find(ch));
    }
    static const TChar* FindLastChar(const TChar* psz, TChar ch) {
        return ch == 0 ? End(psz) : Place(psz, Of(psz).rfind(ch));
    }
    static const TChar* FindPair(const TChar* psz, TChar ch1, TChar ch2) {
        const TChar aPair[] = {ch1, ch2};
        return Place(psz, Of(psz).find(View(aPair, 2)));
    }
    static const TChar* FindText(const TChar* psz, const TChar* pszWhat) {
        return Place(psz, Of(psz).find(Of(pszWhat)));
    }
    static const TChar* FindAnyOf(const TChar* psz, const TChar* pszSet) {
        return Place(psz, Of(psz).find_first_of(Of(pszSet)));
    }
    static int CountOf(const TChar* psz, const TChar* pszSet) {
        return Prefix(psz, Of(psz).find_first_not_of(Of(pszSet)));
    }
    static int CountNotOf(const TChar* psz, const TChar* pszSet) {
        return Prefix(psz, Of(psz).find_first_of(Of(pszSet)));
    }
    static TChar* Reverse(TChar* psz) {
        std::reverse(psz, psz + Of(psz).size());
        return psz;
    }

    // Comparisons: -1, 0 or 1.
    static int Compare(const TChar* psz1, const TChar* psz2) { return Sign(Of(psz1).compare(Of(psz2))); }
    static int CompareNoCase(const TChar* psz1, const TChar* psz2) {
        return Sign(Lower(Of(psz1)).compare(Lower(Of(psz2))));
    }
    static int Collate(const TChar* psz1, const TChar* psz2) { return CollateTexts(Text(Of(psz1)), Text(Of(psz2))); }
    static int CollateNoCase(const TChar* psz1, const TChar* psz2) {
        return CollateTexts(Lower(Of(psz1)), Lower(Of(psz2)));
    }

    static int IsDigit(TChar ch) {
        if constexpr (bWide) {
            return std::iswdigit(static_cast<std::wint_t>(ch)) != 0;
        } else {
            return std::isdigit(static_cast<unsigned char>(ch)) != 0;
        }
    }
    static int IsSpace(TChar ch) {
        if constexpr (bWide) {
            return std::iswspace(static_cast<std::wint_t>(ch)) != 0;
        } else {
            return std::isspace(static_cast<unsigned char>(ch)) != 0;
        }
    }

    // The decimal number at the start of the text, after white space; 0 if there is none. Limited to the range of int.
    static int ToInt(const TChar* psz) {
        if (psz == nullptr) {
            return 0;
        }
        long nValue = 0;
        if constexpr (bWide) {
            nValue = std::wcstol(psz, nullptr, 10);
        } else {
            nValue = std::strtol(psz, nullptr, 10);
        }
        return static_cast<int>(std::clamp<long>(nValue, INT_MIN, INT_MAX));
    }

private:
    static_assert(std::is_same_v<TChar, char> || std::is_same_v<TChar, wchar_t>);
    static constexpr bool bWide = std::is_same_v<TChar, wchar_t>;

    static std::size_t Clamp(int nNumber) { return nNumber < 0 ? 0 : static_cast<std::size_t>(nNumber); }
    static const TChar* End(const TChar* psz) { return psz == nullptr ? nullptr : psz + Of(psz).size(); }
    static const TChar* Place(const TChar* psz, std::size_t nPosition) {
        return psz == nullptr || nPosition == View::npos ? nullptr : psz + nPosition;
    }
    static int Prefix(const TChar* psz, std::size_t nPosition) {
        return Length(nPosition == View::npos ? Of(psz).size() : nPosition);
    }
    static int Sign(int nOrder) { return (nOrder > 0) - (nOrder < 0); }

    static Text Lower(View text) {
        Text result(text);
        for (TChar& ch : result) {
            if constexpr (bWide) {
                ch = static_cast<TChar>(std::towlower(static_cast<std::wint_t>(ch)));
            } else {
                ch = static_cast<TChar>(std::tolower(static_cast<unsigned char>(ch)));
            }
        }
        return result;
    }
    static int CollateTexts(const Text& text1, const Text& text2) {
        if constexpr (bWide) {
            return Sign(std::wcscoll(text1.c_str(), text2.c_str()));
        } else {
            return Sign(std::strcoll(text1.c_str(), text2.c_str()));
        }
    }
};

// printf and wprintf into a new text of sufficient length, which the caller frees with free, also after a failure.
// Returns the number of characters printed; below 0 on failure.
__attribute__((__format__(__printf__, 2, 0))) inline int VEXAllocPrint(char** ppszText, const char* pszFormat,
                                                                       va_list args) {
    *ppszText = nullptr;
    if (pszFormat == nullptr) {
        return -1;
    }
    const int nLength = ::vasprintf(ppszText, pszFormat, args);
    if (nLength < 0) {
        *ppszText = nullptr;
    }
    return nLength;
}

inline int VEXAllocPrint(wchar_t** ppszText, const wchar_t* pszFormat, va_list args) {
    *ppszText = nullptr;
    std::size_t nSize = 0;
    const CVEXForkPause pause;
    std::FILE* const pStream = pszFormat == nullptr ? nullptr : ::open_wmemstream(ppszText, &nSize);
    if (pStream == nullptr) {
        return -1;
    }
    const int nLength = std::vfwprintf(pStream, pszFormat, args);
    return std::fclose(pStream) == 0 ? nLength : -1;
}
