// Compares UTF-8 with iconv, an independent implementation, for every code point and many random byte strings.
#include <gtest/gtest.h>
#include <iconv.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <stdexcept>

#include "Conversion.h"

namespace {

template <typename To>
class Iconv {
public:
    Iconv(const char* pszTo, const char* pszFrom) : m_descriptor(iconv_open(pszTo, pszFrom)) {
        if (m_descriptor == reinterpret_cast<iconv_t>(-1)) {
            throw std::runtime_error("no such conversion");
        }
    }
    ~Iconv() { iconv_close(m_descriptor); }
    Iconv(const Iconv&) = delete;
    Iconv& operator=(const Iconv&) = delete;

    template <typename From>
    std::optional<std::basic_string<To>> Convert(std::basic_string_view<From> text) {
        std::basic_string<From> strIn(text);
        std::basic_string<To> strOut(text.size() * 4 + 4, To{});
        char* pIn = reinterpret_cast<char*>(strIn.data());
        size_t cbIn = strIn.size() * sizeof(From);
        char* pOut = reinterpret_cast<char*>(strOut.data());
        size_t cbOut = strOut.size() * sizeof(To);
        iconv(m_descriptor, nullptr, nullptr, nullptr, nullptr);
        if (iconv(m_descriptor, &pIn, &cbIn, &pOut, &cbOut) == static_cast<size_t>(-1)) {
            return std::nullopt;
        }
        strOut.resize(strOut.size() - cbOut / sizeof(To));
        return strOut;
    }

private:
    iconv_t m_descriptor;
};

std::string Hex(std::string_view bytes) {
    std::string strHex;
    for (const char ch : bytes) {
        constexpr char kDigits[] = "0123456789ABCDEF";
        strHex += {kDigits[static_cast<unsigned char>(ch) >> 4], kDigits[ch & 15], ' '};
    }
    return strHex;
}

bool InRange(std::string_view text, size_t i, unsigned char first, unsigned char last) {
    return i < text.size() && static_cast<unsigned char>(text[i]) >= first &&
           static_cast<unsigned char>(text[i]) <= last;
}

// Rewrites surrogate pairs (two three-byte sequences) as the four-byte sequences that iconv knows.
std::string PairsAsFourBytes(std::string_view text) {
    std::string strOut;
    for (size_t i = 0; i < text.size();) {
        const bool bPair = InRange(text, i, 0xED, 0xED) && InRange(text, i + 1, 0xA0, 0xAF) &&
                           InRange(text, i + 2, 0x80, 0xBF) && InRange(text, i + 3, 0xED, 0xED) &&
                           InRange(text, i + 4, 0xB0, 0xBF) && InRange(text, i + 5, 0x80, 0xBF);
        if (!bPair) {
            strOut += text[i++];
            continue;
        }
        const auto nBits = [text, i](size_t n, unsigned nMask) {
            return static_cast<unsigned char>(text[i + n]) & nMask;
        };
        const unsigned nHigh = nBits(1, 0x0F) * 64 + nBits(2, 0x3F);
        const unsigned nLow = nBits(4, 0x0F) * 64 + nBits(5, 0x3F);
        const unsigned nCharacter = 0x10000 + nHigh * 1024 + nLow;
        for (const unsigned n : {0xF0 + nCharacter / 262144, 0x80 + nCharacter / 4096 % 64, 0x80 + nCharacter / 64 % 64,
                                 0x80 + nCharacter % 64}) {
            strOut += static_cast<char>(n);
        }
        i += 6;
    }
    return strOut;
}

class Utf8Test : public testing::Test {
protected:
    // Compares one decoding with iconv's; true when the text was well-formed.
    bool CheckDecoding(std::string_view text) {
        const auto decoded = ConvertChecked<NarrowToWide>(CP_UTF8, text);
        EXPECT_EQ(decoded, m_decoder.Convert(std::string_view(PairsAsFourBytes(text)))) << Hex(text);
        return decoded.has_value();
    }
    bool CheckEncoding(std::wstring_view text) {
        const auto encoded = ConvertChecked<WideToNarrow>(CP_UTF8, text);
        EXPECT_EQ(encoded, m_encoder.Convert(text));
        return encoded.has_value();
    }

    Iconv<wchar_t> m_decoder{"UTF-32LE", "UTF-8"};
    Iconv<char> m_encoder{"UTF-8", "UTF-32LE"};
    std::mt19937 m_random{20240305};
};

// The encoder checks 16 characters together.
TEST_F(Utf8Test, ABlockOfTheSameCharacter) {
    for (const char32_t ch : {0x7F, 0x80, 0x7FF, 0x800, 0xFFFF, 0x10000, 0x10FFFF}) {
        EXPECT_TRUE(CheckEncoding(std::wstring(16, static_cast<wchar_t>(ch)))) << std::hex << static_cast<unsigned>(ch);
    }
}

struct Sequence {
    const char* pszWhat;
    std::string_view bytes;
    std::optional<std::wstring> decoded;
};

TEST_F(Utf8Test, Examples) {
    using namespace std::string_view_literals;
    const auto malformed = std::nullopt;
    const Sequence sequences[] = {
        {"a zero byte", "\0"sv, std::wstring(1, L'\0')},
        {"the last of one byte", "\x7F", L"\x7F"},
        {"the first of two", "\xC2\x80", L"\u0080"},
        {"the last of two", "\xDF\xBF", L"\u07FF"},
        {"the first of three", "\xE0\xA0\x80", L"\u0800"},
        {"before the surrogates", "\xED\x9F\xBF", L"\uD7FF"},
        {"after the surrogates", "\xEE\x80\x80", L"\uE000"},
        {"a byte order mark stays", "\xEF\xBB\xBFz", L"\uFEFFz"},
        {"a replacement character of the text's own", "\xEF\xBF\xBD", L"\uFFFD"},
        {"not a character, but a code point", "\xEF\xBF\xBF", L"\uFFFF"},
        {"the first of four", "\xF0\x90\x80\x80", L"\U00010000"},
        {"the last of four", "\xF4\x8F\xBF\xBF", L"\U0010FFFF"},
        {"the first pair", "\xED\xA0\x80\xED\xB0\x80", L"\U00010000"},
        {"the last pair", "\xED\xAF\xBF\xED\xBF\xBF", L"\U0010FFFF"},
        {"a pair within text", "a\xED\xA0\xBD\xED\xB8\x80z", L"a\U0001F600z"},
        {"two pairs", "\xED\xA0\xBD\xED\xB8\x80\xED\xA0\xBD\xED\xB8\x80", L"\U0001F600\U0001F600"},
        {"a high surrogate alone", "\xED\xA0\x80", malformed},
        {"a low surrogate alone", "\xED\xB0\x80", malformed},
        {"a high surrogate and text",
         "\xED\xA0\x80"
         "abc",
         malformed},
        {"a pair the wrong way round", "\xED\xB0\x80\xED\xA0\x80", malformed},
        {"two high surrogates", "\xED\xA0\x80\xED\xA0\x80", malformed},
        {"two high surrogates and a low one", "\xED\xA0\x80\xED\xA0\x80\xED\xB0\x80", malformed},
        {"a pair and a low surrogate", "\xED\xA0\x80\xED\xB0\x80\xED\xB0\x80", malformed},
        {"a high surrogate and a character of four bytes", "\xED\xA0\x80\xF0\x90\x80\x80", malformed},
        {"a high surrogate and one of three bytes", "\xED\xA0\x80\xEE\x80\x80", malformed},
        {"a pair cut off in its low half", "\xED\xA0\x80\xED\xB0", malformed},
        {"a pair cut off between", "\xED\xA0\x80\xED", malformed},
        {"Java's zero", "\xC0\x80", malformed},
        {"Java's zero within text", "a\xC0\x80z", malformed},
        {"overlong in two", "\xC1\xBF", malformed},
        {"overlong in three", "\xE0\x9F\xBF", malformed},
        {"overlong in four", "\xF0\x8F\xBF\xBF", malformed},
        {"above the last", "\xF4\x90\x80\x80", malformed},
        {"a lead of F5", "\xF5\x80\x80\x80", malformed},
        {"five bytes", "\xF8\x88\x80\x80\x80", malformed},
        {"six bytes", "\xFC\x84\x80\x80\x80\x80", malformed},
        {"FE", "\xFE", malformed},
        {"FF", "\xFF", malformed},
        {"a continuation alone", "\x80", malformed},
        {"a continuation too many", "\xC2\x80\x80", malformed},
        {"cut after one of two", "\xC3", malformed},
        {"cut after two of three", "\xE2\x82", malformed},
        {"cut after three of four", "\xF0\x9F\x98", malformed},
        {"cut by ASCII",
         "\xE2\x82"
         "a",
         malformed},
        {"malformed after a long run", "0123456789abcdef0123456789abcdef\xFF", malformed},
        {"malformed in the middle of a run",
         "0123456\xFF"
         "89abcdef",
         malformed},
    };
    for (const Sequence& sequence : sequences) {
        SCOPED_TRACE(sequence.pszWhat);
        EXPECT_EQ(ConvertChecked<NarrowToWide>(CP_UTF8, sequence.bytes), sequence.decoded);
        CheckDecoding(sequence.bytes);
        if (sequence.bytes.find('\0') == sequence.bytes.npos) {
            const std::string strTerminated(sequence.bytes);
            const int nLength = sequence.decoded ? static_cast<int>(sequence.decoded->size()) + 1 : 0;
            EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, strTerminated.c_str(), -1, nullptr, 0), nLength);
        }
    }
}

TEST_F(Utf8Test, EveryCodePoint) {
    for (char32_t ch = 0; ch <= 0x110010; ++ch) {
        const wchar_t wide = static_cast<wchar_t>(ch);
        const auto encoded = ConvertChecked<WideToNarrow>(CP_UTF8, {&wide, 1});
        ASSERT_EQ(encoded, m_encoder.Convert(std::wstring_view(&wide, 1))) << static_cast<unsigned>(ch);
        const bool bCharacter = ch <= 0x10FFFF && (ch < 0xD800 || ch > 0xDFFF);
        ASSERT_EQ(encoded.has_value(), bCharacter) << static_cast<unsigned>(ch);
        if (encoded) {
            ASSERT_EQ(ConvertChecked<NarrowToWide>(CP_UTF8, *encoded), std::wstring(1, wide));
        }
    }
}

TEST_F(Utf8Test, EverySurrogatePair) {
    std::string strPairs;
    std::wstring strExpected;
    for (unsigned nHigh = 0; nHigh < 1024; ++nHigh) {
        strPairs.clear();
        strExpected.clear();
        for (unsigned nLow = 0; nLow < 1024; ++nLow) {
            for (const unsigned n :
                 {0xEDU, 0xA0 + nHigh / 64, 0x80 + nHigh % 64, 0xEDU, 0xB0 + nLow / 64, 0x80 + nLow % 64}) {
                strPairs += static_cast<char>(n);
            }
            strExpected += static_cast<wchar_t>(0x10000 + nHigh * 1024 + nLow);
        }
        ASSERT_EQ(ConvertChecked<NarrowToWide>(CP_UTF8, strPairs), strExpected) << nHigh;
    }
}

// All strings of two bytes, and the interesting ones of three and four.
TEST_F(Utf8Test, EveryShortString) {
    std::string strText(2, '\0');
    for (unsigned n = 0; n < 65536; ++n) {
        strText = {static_cast<char>(n >> 8), static_cast<char>(n)};
        CheckDecoding(strText);
    }
    constexpr unsigned char kBorders[] = {0x00, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xAF, 0xB0, 0xBF, 0xC0, 0xC1, 0xC2,
                                          0xDF, 0xE0, 0xEC, 0xED, 0xEE, 0xEF, 0xF0, 0xF1, 0xF3, 0xF4, 0xF5, 0xFF};
    int nWellFormed = 0;
    for (const unsigned char a : kBorders) {
        for (const unsigned char b : kBorders) {
            for (const unsigned char c : kBorders) {
                for (const unsigned char d : kBorders) {
                    strText = {static_cast<char>(a), static_cast<char>(b), static_cast<char>(c), static_cast<char>(d)};
                    nWellFormed += CheckDecoding(strText);
                }
            }
        }
    }
    EXPECT_GT(nWellFormed, 100);
}

TEST_F(Utf8Test, RandomByteStrings) {
    // Most pieces are well-formed, so that many whole strings are, too.
    const std::string_view pieces[] = {"a",
                                       "0123456789abcdef",
                                       "\xC3\xA9",
                                       "\xE2\x82\xAC",
                                       "\xF0\x9F\x98\x80",
                                       "\xED\xA0\xBD\xED\xB8\x80",
                                       "\xEF\xBF\xBF",
                                       "\x7F",
                                       "\xE0\xA0\x80",
                                       "zz"};
    int nWellFormed = 0;
    constexpr int kStrings = 120000;
    for (int i = 0; i < kStrings; ++i) {
        std::string strText;
        const bool bBytes = i % 3 == 0;
        for (size_t n = 1 + m_random() % 12; n-- > 0;) {
            if (bBytes) {
                strText += static_cast<char>(m_random());
            } else {
                strText += pieces[m_random() % std::size(pieces)];
            }
        }
        if (i % 3 == 1 && m_random() % 2 == 0) {
            strText[m_random() % strText.size()] = static_cast<char>(m_random());
        }
        nWellFormed += CheckDecoding(strText);
    }
    EXPECT_GT(nWellFormed, kStrings / 4);
    EXPECT_LT(nWellFormed, kStrings * 3 / 4);
}

TEST_F(Utf8Test, RandomWideStrings) {
    int nEncodable = 0;
    constexpr int kStrings = 50000;
    for (int i = 0; i < kStrings; ++i) {
        std::wstring strText;
        for (size_t n = 1 + m_random() % 20; n-- > 0;) {
            const auto nBits = 1 + m_random() % 21;
            strText += static_cast<wchar_t>(m_random() % (1U << nBits));
        }
        if (i % 10 == 0) {
            strText += static_cast<wchar_t>(m_random());
        }
        nEncodable += CheckEncoding(strText);
    }
    EXPECT_GT(nEncodable, kStrings / 4);
    EXPECT_LT(nEncodable, kStrings);
}

// Runs of ASCII are converted several bytes at a time: tries every length and every place of a longer character.
TEST_F(Utf8Test, RunsOfEveryLength) {
    for (size_t cbRun = 0; cbRun <= 40; ++cbRun) {
        for (size_t nPlace = 0; nPlace <= cbRun; ++nPlace) {
            std::string strText(cbRun, 'r');
            strText.insert(nPlace, "\xC3\xA9");
            EXPECT_TRUE(CheckDecoding(strText));
            std::wstring strWide(cbRun, L'r');
            strWide.insert(nPlace, L"\u20AC");
            EXPECT_TRUE(CheckEncoding(strWide));
            strText.insert(nPlace, "\xFE");
            EXPECT_FALSE(CheckDecoding(strText));
        }
    }
}

TEST_F(Utf8Test, AMebibyteOfText) {
    std::string strText(1 << 20, 'x');
    const auto wide = ConvertChecked<NarrowToWide>(CP_UTF8, strText);
    ASSERT_EQ(wide, std::wstring(1 << 20, L'x'));
    EXPECT_EQ(ConvertChecked<WideToNarrow>(CP_UTF8, *wide), strText);
    strText.back() = '\x80';
    EXPECT_EQ(ConvertChecked<NarrowToWide>(CP_UTF8, strText), std::nullopt);
}

}  // namespace
