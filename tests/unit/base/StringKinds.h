// The two kinds of string, for typed tests of what both have in common.
#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "VEXCstring.h"

struct WideKind {
    using String = CString;
    using Data = CStringData;
    using Char = TCHAR;
    static constexpr auto& rgInit = rgInitData;
    static Data* Nil() { return _atltmpDataNil; }
    static const Char* PchNil() { return _atltmpPchNil; }
};

struct NarrowKind {
    using String = CStringA;
    using Data = CstringDataA;
    using Char = char;
    static constexpr auto& rgInit = rgInitDataA;
    static Data* Nil() { return _atltmpDataNilA; }
    static const Char* PchNil() { return _atltmpPchNilA; }
};

using StringKinds = ::testing::Types<WideKind, NarrowKind>;

class StringKindNames {
public:
    template <typename TKind>
    static std::string GetName(int) {
        return sizeof(typename TKind::Char) == 1 ? "Narrow" : "Wide";
    }
};

// Base of the typed tests. The tests have narrow ASCII texts, which are widened here.
template <typename TKind>
class CStringKindTest : public ::testing::Test {
public:
    using StringT = typename TKind::String;
    using Data = typename TKind::Data;
    using CharT = typename TKind::Char;
    using Text = std::basic_string<CharT>;

    // Gives tests access to m_pchData.
    struct COpenString : StringT {
        using StringT::m_pchData;
    };

    static Text T(std::string_view text) { return Text(text.begin(), text.end()); }
    static StringT S(std::string_view text) { return StringT(T(text).c_str()); }

    static const CharT* Address(const StringT& str) { return str.GetString(); }
    static Text Counted(const StringT& str) { return Text(str.GetString(), static_cast<std::size_t>(str.GetLength())); }
    // For messages and for comparisons with narrow literals.
    static std::string Plain(const StringT& str) {
        const Text text = Counted(str);
        std::string plain;
        for (const CharT ch : text) {
            plain += static_cast<char>(ch);
        }
        return plain;
    }

    static bool IsEmptyBlock(const StringT& str) { return Address(str) == TKind::PchNil(); }
    static long Refs(const StringT& str) { return str.GetData()->nRefs; }
    static std::size_t BlockSize(int nLength) { return 56 + (static_cast<std::size_t>(nLength) + 1) * sizeof(CharT); }
};
