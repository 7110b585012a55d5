// The two conversions as functions of a text, with a check of what holds for every call.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "VEXCompat.h"

struct NarrowToWide {
    using From = char;
    using To = wchar_t;
    static int Convert(UINT uCodePage, const char* pSource, int nLength, wchar_t* pOut, int nRoom) {
        return MultiByteToWideChar(uCodePage, 0, pSource, nLength, pOut, nRoom);
    }
};

struct WideToNarrow {
    using From = wchar_t;
    using To = char;
    static int Convert(UINT uCodePage, const wchar_t* pSource, int nLength, char* pOut, int nRoom) {
        return WideCharToMultiByte(uCodePage, 0, pSource, nLength, pOut, nRoom, nullptr, nullptr);
    }
};

// Converts the text with an explicit length. Returns nothing when a character has no translation. Also checks that
//  - the size query and the conversion agree, on success and on failure;
//  - nothing is written behind the room, and nothing at all when the room is one too small or the text is malformed;
//  - nothing is read behind the source (with AddressSanitizer).
template <typename Direction>
std::optional<std::basic_string<typename Direction::To>> ConvertChecked(
    UINT uCodePage, std::basic_string_view<typename Direction::From> text) {
    using From = typename Direction::From;
    using To = typename Direction::To;
    constexpr To kFill = '#';
    const int nLength = static_cast<int>(text.size());
    const auto source = std::make_unique<From[]>(text.size());
    std::copy(text.begin(), text.end(), source.get());
    const int nNeeded = Direction::Convert(uCodePage, source.get(), nLength, nullptr, 0);
    if (nNeeded == 0) {
        EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION);
        std::basic_string<To> strOut(text.size() * 8 + 8, kFill);
        VexCreateFile(nullptr);  // another last error
        EXPECT_EQ(Direction::Convert(uCodePage, source.get(), nLength, strOut.data(), static_cast<int>(strOut.size())),
                  0);
        EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION);
        EXPECT_EQ(strOut.find_first_not_of(kFill), strOut.npos);
        return std::nullopt;
    }
    const auto nResult = static_cast<size_t>(nNeeded);
    std::basic_string<To> strOut(nResult + 2, kFill);
    if (nNeeded > 1) {
        EXPECT_EQ(Direction::Convert(uCodePage, source.get(), nLength, strOut.data(), nNeeded - 1), 0);
        EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
        EXPECT_EQ(strOut.find_first_not_of(kFill), strOut.npos);
    }
    EXPECT_EQ(Direction::Convert(uCodePage, source.get(), nLength, strOut.data(), nNeeded), nNeeded);
    EXPECT_EQ(strOut.substr(nResult), (std::basic_string<To>(2, kFill)));
    strOut.resize(nResult);
    return strOut;
}
