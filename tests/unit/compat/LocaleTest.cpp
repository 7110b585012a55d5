// Compares code page 0 with libc's mbstowcs and wcstombs, in every locale of the machine and in a few that the test
// creates: single-byte, multibyte, some that delay a character until the next one, and one with shift states.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cwchar>
#include <random>
#include <sstream>

#include "Command.h"
#include "Conversion.h"
#include "ScopedLocale.h"
#include "TempDirectory.h"

namespace {

constexpr auto kFailed = static_cast<size_t>(-1);

// libc's conversion of a terminated text, without the terminator.
std::optional<std::wstring> LibcDecode(const std::string& strText) {
    const size_t cch = std::mbstowcs(nullptr, strText.c_str(), 0);
    if (cch == kFailed) {
        return std::nullopt;
    }
    std::wstring strWide(strText.size() + cch + 1, L'#');
    const char* pNext = strText.c_str();
    std::mbstate_t state{};
    EXPECT_EQ(std::mbsrtowcs(strWide.data(), &pNext, strWide.size(), &state), cch);
    strWide.resize(cch);
    // In one encoding libc stops without an error at a character that is cut off. The toolkit calls that malformed.
    return pNext == nullptr ? std::optional(strWide) : std::nullopt;
}

std::optional<std::string> LibcEncode(const std::wstring& strText) {
    const size_t cb = std::wcstombs(nullptr, strText.c_str(), 0);
    if (cb == kFailed) {
        return std::nullopt;
    }
    std::string strNarrow(cb + 1, '#');
    EXPECT_EQ(std::wcstombs(strNarrow.data(), strText.c_str(), cb + 1), cb);
    strNarrow.resize(cb);
    return strNarrow;
}

// The same, character by character.
std::optional<std::string> LibcEncodeSingly(const std::wstring& strText) {
    std::mbstate_t state{};
    std::string strNarrow;
    char buffer[MB_LEN_MAX];
    for (size_t i = 0; i <= strText.size(); ++i) {
        const size_t cb = std::wcrtomb(buffer, strText.c_str()[i], &state);
        if (cb == kFailed) {
            return std::nullopt;
        }
        strNarrow.append(buffer, cb);
    }
    strNarrow.pop_back();
    return strNarrow;
}

// libc may drop all of a text that is not empty. That length of 0 counts as a failure.
template <typename Text>
std::optional<Text> NoneIfEmpty(const std::optional<Text>& text) {
    return text && !text->empty() ? text : std::nullopt;
}

// Converts a terminated text without zeros in all ways and compares with libc's result.
template <typename Direction, typename Expected>
void CheckTerminated(const std::basic_string<typename Direction::From>& strText, const Expected& expected) {
    using To = typename Direction::To;
    const int nNeeded = Direction::Convert(CP_ACP, strText.c_str(), -1, nullptr, 0);
    if (!expected) {
        EXPECT_EQ(nNeeded, 0);
        EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION);
        return;
    }
    const auto n = static_cast<int>(expected->size());
    ASSERT_EQ(nNeeded, n + 1);
    for (const int nRoom : {n + 1, n + 2}) {
        std::basic_string<To> strOut(expected->size() + 2, '#');
        EXPECT_EQ(Direction::Convert(CP_ACP, strText.c_str(), -1, strOut.data(), nRoom), n + 1);
        EXPECT_EQ(strOut, *expected + To{} + To{'#'});
    }
    if (n > 0) {
        std::basic_string<To> strOut(expected->size() + 1, '#');
        EXPECT_EQ(Direction::Convert(CP_ACP, strText.c_str(), -1, strOut.data(), n), n);
        EXPECT_EQ(strOut, *expected + To{'#'});
    }
    if (n > 1) {
        std::basic_string<To> strOut(expected->size(), '#');
        EXPECT_EQ(Direction::Convert(CP_ACP, strText.c_str(), -1, strOut.data(), n - 1), 0);
        EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
        EXPECT_EQ(strOut.find_first_not_of(To{'#'}), strOut.npos);
    }
}

struct Counts {
    int nConverted = 0;
    int nRefused = 0;
};

void Count(Counts& counts, bool bConverted) {
    ++(bConverted ? counts.nConverted : counts.nRefused);
}

std::wstring RandomWide(std::mt19937& random, const std::wstring& strKnown) {
    std::wstring strText;
    for (size_t n = random() % 12; n-- > 0;) {
        switch (random() % 4) {
            case 0:
                strText += static_cast<wchar_t>(1 + random() % 127);
                break;
            case 1:
                strText += static_cast<wchar_t>(1 + random() % (1U << (1 + random() % 21)));
                break;
            default:
                strText += strKnown[random() % strKnown.size()];
        }
    }
    std::erase(strText, L'\x1B');  // begins a shift sequence in some encodings
    return strText;
}

// Characters that the locale has, from every region of the code space.
std::wstring KnownCharacters() {
    std::wstring strKnown;
    for (wchar_t ch = 1; ch < 0x30000; ch += ch < 0x3100 ? 1 : 37) {
        if (LibcEncode({ch})) {
            strKnown += ch;
        }
    }
    std::erase(strKnown, L'\x1B');
    return strKnown;
}

// bMalformed: also try malformed narrow texts.
void CheckAgreement(bool bMalformed) {
    std::mt19937 random(4711);
    const std::wstring strKnown = KnownCharacters();
    ASSERT_GE(strKnown.size(), 126U);
    Counts encoded;
    Counts decoded;
    for (int i = 0; i < 10000 && !testing::Test::HasFailure(); ++i) {
        const std::wstring strWide = RandomWide(random, strKnown);
        const auto narrow = LibcEncode(strWide);
        ASSERT_EQ(narrow, LibcEncodeSingly(strWide));
        CheckTerminated<WideToNarrow>(strWide, narrow);
        if (!strWide.empty()) {
            EXPECT_EQ(ConvertChecked<WideToNarrow>(CP_ACP, strWide), NoneIfEmpty(narrow));
        }
        Count(encoded, narrow.has_value());

        std::string strNarrow = narrow.value_or("");
        for (size_t n = bMalformed ? random() % 3 : 0; n-- > 0;) {
            strNarrow.insert(random() % (strNarrow.size() + 1), 1, static_cast<char>(1 + random() % 255));
        }
        const auto wide = LibcDecode(strNarrow);
        CheckTerminated<NarrowToWide>(strNarrow, wide);
        if (!strNarrow.empty()) {
            EXPECT_EQ(ConvertChecked<NarrowToWide>(CP_ACP, strNarrow), NoneIfEmpty(wide));
        }
        Count(decoded, wide.has_value());

        // Two texts with a terminator between them convert like each alone.
        const std::wstring strOther = RandomWide(random, strKnown);
        const auto otherNarrow = LibcEncode(strOther);
        if (narrow && otherNarrow) {
            const std::string strBoth = *narrow + '\0' + *otherNarrow;
            EXPECT_EQ(ConvertChecked<WideToNarrow>(CP_ACP, strWide + L'\0' + strOther), strBoth);
            EXPECT_EQ(ConvertChecked<NarrowToWide>(CP_ACP, strBoth),
                      LibcDecode(*narrow).value() + L'\0' + LibcDecode(*otherNarrow).value());
        }
    }
    EXPECT_GT(encoded.nConverted, 1000);
    EXPECT_GT(encoded.nRefused, 10);
    EXPECT_GT(decoded.nConverted, 1000);
}

// A text that is converted in several steps. Characters and shift sequences lie across the borders.
void CheckLongTexts() {
    std::mt19937 random(42);
    const std::wstring strKnown = KnownCharacters();
    for (size_t cch = 100; cch < 3000; cch += 97) {
        std::wstring strWide;
        while (strWide.size() < cch) {
            strWide += strKnown[random() % strKnown.size()];
        }
        const auto narrow = LibcEncode(strWide);
        ASSERT_TRUE(narrow);
        CheckTerminated<WideToNarrow>(strWide, narrow);
        CheckTerminated<NarrowToWide>(*narrow, LibcDecode(*narrow));
        EXPECT_EQ(ConvertChecked<WideToNarrow>(CP_ACP, strWide), narrow);
        EXPECT_EQ(ConvertChecked<NarrowToWide>(CP_ACP, *narrow), LibcDecode(*narrow));
    }
}

// All code points of the first plane, and many of the others.
TEST(Locale, CodePoints) {
    for (const char* pszName : {"C", "C.UTF-8"}) {
        const ScopedLocale locale(pszName);
        for (long nValue = 1; nValue <= 0x110100 && !HasFailure(); nValue += nValue < 0x10000 ? 1 : 53) {
            const std::wstring strText(1, static_cast<wchar_t>(nValue));
            const auto narrow = LibcEncode(strText);
            EXPECT_EQ(ConvertChecked<WideToNarrow>(CP_ACP, strText), NoneIfEmpty(narrow)) << nValue;
            if (NoneIfEmpty(narrow)) {
                EXPECT_EQ(ConvertChecked<NarrowToWide>(CP_ACP, *narrow), LibcDecode(*narrow)) << nValue;
            }
        }
    }
}

// Two three-byte sequences for a surrogate pair are Java's encoding, not the locale's.
TEST(Locale, RefusesJavasSurrogatePairs) {
    const ScopedLocale locale("C.UTF-8");
    const std::string strPair = "\xED\xA0\xBD\xED\xB8\x80";
    EXPECT_EQ(LibcDecode(strPair), std::nullopt);
    EXPECT_EQ(ConvertChecked<NarrowToWide>(CP_ACP, strPair), std::nullopt);
}

std::vector<std::string> InstalledLocales() {
    std::vector<std::string> names;
    std::istringstream lines(RunCommand("locale -a").strOutput);
    for (std::string strName; std::getline(lines, strName);) {
        names.push_back(strName);
    }
    return names;
}

TEST(Locale, EveryInstalledOneAgreesWithLibc) {
    int nChecked = 0;
    for (const std::string& strName : InstalledLocales()) {
        if (std::setlocale(LC_ALL, strName.c_str()) == nullptr) {
            continue;
        }
        std::setlocale(LC_ALL, "C");
        const ScopedLocale locale(strName);
        SCOPED_TRACE(strName);
        std::printf("locale %s\n", strName.c_str());
        CheckAgreement(true);
        CheckLongTexts();
        ++nChecked;
    }
    EXPECT_GE(nChecked, 2) << "C and POSIX are missing";
}

// Locales created for this test with a given encoding. Their character classification does not matter.
class MadeLocale : public testing::TestWithParam<const char*> {
protected:
    static void SetUpTestSuite() { s_pDirectory = new TempDirectory; }
    static void TearDownTestSuite() {
        delete s_pDirectory;
        s_pDirectory = nullptr;
        unsetenv("LOCPATH");
    }
    void SetUp() override {
        const std::string strEncoding = GetParam();
        const std::string strMap = s_pDirectory->Write(strEncoding + ".charmap", "<code_set_name> " + strEncoding +
                                                                                     "\n<comment_char> %\n"
                                                                                     "<escape_char> /\n"
                                                                                     "<mb_cur_min> 1\n"
                                                                                     "<mb_cur_max> 8\n"
                                                                                     "CHARMAP\n"
                                                                                     "<U0000>..<U007F> /x00 ASCII\n"
                                                                                     "END CHARMAP\n");
        const std::string strLocale = s_pDirectory->Path("test." + strEncoding);
        const CommandResult made = RunCommand("localedef -c -i POSIX -f " + strMap + " " + strLocale);
        setenv("LOCPATH", s_pDirectory->Path().c_str(), 1);
        ASSERT_NE(std::setlocale(LC_ALL, ("test." + strEncoding).c_str()), nullptr)
            << "localedef made no locale with " << strEncoding << ": " << made.strOutput;
    }
    void TearDown() override { std::setlocale(LC_ALL, "C"); }

    static TempDirectory* s_pDirectory;
};

TempDirectory* MadeLocale::s_pDirectory = nullptr;

TEST_P(MadeLocale, AgreesWithLibc) {
    // libc itself may abort the process at a malformed text with shift states.
    const bool bShifting = std::string_view(GetParam()).starts_with("ISO-2022");
    CheckAgreement(!bShifting);
    CheckLongTexts();
}

INSTANTIATE_TEST_SUITE_P(Encodings, MadeLocale,
                         testing::Values("ISO-8859-1", "ISO-8859-15", "KOI8-R", "EUC-JP", "SJIS", "GBK", "GB18030",
                                         "EUC-KR", "BIG5", "BIG5-HKSCS", "TSCII", "TCVN5712-1", "ISO-2022-JP", "UTF-8"),
                         [](const auto& tested) {
                             std::string strName = tested.param;
                             std::erase(strName, '-');
                             return strName;
                         });

class ShiftingLocale : public MadeLocale {};

// A text ends in the initial shift state, with and without a terminator.
TEST_P(ShiftingLocale, EndsInTheInitialState) {
    const std::string strExpected = "a\x1B$B$\"\x1B(B";
    EXPECT_EQ(ConvertChecked<WideToNarrow>(CP_ACP, L"a\u3042"), strExpected);
    EXPECT_EQ(LibcEncode(L"a\u3042"), strExpected);
    EXPECT_EQ(ConvertChecked<WideToNarrow>(CP_ACP, std::wstring(L"\u3042\0\u3042", 3)),
              std::string("\x1B$B$\"\x1B(B\0\x1B$B$\"\x1B(B", 17));
    BOOL bUsed = FALSE;
    char szOut[32] = {};
    EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, L"\u3042\u00E9\u3042", -1, szOut, 32, "?", &bUsed), 18);
    EXPECT_STREQ(szOut, "\x1B$B$\"\x1B(B?\x1B$B$\"\x1B(B");
    EXPECT_EQ(bUsed, TRUE);
}

INSTANTIATE_TEST_SUITE_P(Encodings, ShiftingLocale, testing::Values("ISO-2022-JP"));

}  // namespace
