#include "compat/ProfileText.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

using namespace std::string_literals;

constexpr auto kMissing = std::nullopt;

struct Row {
    std::string strText;
    std::optional<UINT> uValue;  // of logLevel in loginfo
};

class ProfileText : public testing::TestWithParam<Row> {};

TEST_P(ProfileText, Value) {
    EXPECT_EQ(vextk::FindProfileInteger(GetParam().strText, "loginfo", "logLevel"), GetParam().uValue)
        << GetParam().strText;
}

INSTANTIATE_TEST_SUITE_P(Structure, ProfileText,
                         testing::Values(Row{"", kMissing}, Row{"\n\n", kMissing},                            //
                                         Row{"[loginfo]\nlogLevel=2\n", 2}, Row{"[loginfo]\nlogLevel=2", 2},  //
                                         Row{"[loginfo]\r\nlogLevel=2\r\n", 2},                               //
                                         Row{"\n\r\n[loginfo]\n\nlogLevel=2", 2},                             //
                                         Row{"[LOGINFO]\nLOGLEVEL=2", 2}, Row{"[LogInfo]\nloglevel=2", 2},    //
                                         Row{"  [loginfo]\t\n\tlogLevel \t=  2  \n", 2},                      //
                                         Row{"[ loginfo ]\nlogLevel=2", 2},                                   //
                                         Row{"[loginfo] ; yes\nlogLevel=2", 2},                               //
                                         Row{"\xEF\xBB\xBF[loginfo]\nlogLevel=2", 2},                         //
                                         Row{"[loginfo]\xEF\xBB\xBF\nlogLevel=2", 2},                         //
                                         Row{"\xEF\xBB\xBF\xEF\xBB\xBF[loginfo]\nlogLevel=2", kMissing},      //
                                         Row{"logLevel=2\n", kMissing},                                       //
                                         Row{"logLevel=9\n[loginfo]\nlogLevel=2\n", 2},                       //
                                         Row{"[other]\nlogLevel=9\n[loginfo]\nlogLevel=2\n", 2},              //
                                         Row{"[loginfo]\n[other]\nlogLevel=9\n", kMissing},                   //
                                         Row{"[loginf]\nlogLevel=9\n", kMissing},                             //
                                         Row{"[loginfo2]\nlogLevel=9\n", kMissing},                           //
                                         Row{"[]\nlogLevel=9\n", kMissing},                                   //
                                         Row{"loginfo\nlogLevel=9\n", kMissing},                              //
                                         Row{"[loginfo\nlogLevel=9\n", kMissing},                             //
                                         Row{"[loginfo]\n[broken\nlogLevel=2\n", 2},                          //
                                         Row{"[loginfo]\nlogLeve=9\nlogLevels=9\nlogLevel=2", 2},             //
                                         Row{"[loginfo]\nlogLevel\nlogLevel=2", 2},                           //
                                         Row{"[loginfo]\n=9\nlogLevel=2", 2}));

INSTANTIATE_TEST_SUITE_P(TheFirstWins, ProfileText,
                         testing::Values(Row{"[loginfo]\nlogLevel=2\nlogLevel=3\n", 2},             //
                                         Row{"[loginfo]\nlogLevel=2\n[loginfo]\nlogLevel=3\n", 2},  //
                                         Row{"[loginfo]\nx=1\n[loginfo]\nlogLevel=3\n", kMissing},  //
                                         Row{"[loginfo]\nlogLevel=\nlogLevel=3\n", kMissing}));

INSTANTIATE_TEST_SUITE_P(Comments, ProfileText,
                         testing::Values(Row{"; x\n# y\n[loginfo]\n;logLevel=3\n#logLevel=4\nlogLevel=2\n", 2},  //
                                         Row{"[loginfo]\n  ; logLevel=3\n\t# logLevel=4\n", kMissing},           //
                                         Row{";[loginfo]\nlogLevel=3\n", kMissing},                              //
                                         Row{"[loginfo]\n;[other]\nlogLevel=2\n", 2},                            //
                                         Row{"[loginfo]\nlogLevel=2 ; quiet\n", 2},                              //
                                         Row{"[loginfo]\nlogLevel=2;quiet\n", 2},                                //
                                         Row{"[loginfo]\nlogLevel=2 # quiet\n", 2},                              //
                                         Row{"[loginfo]\nlogLevel=; quiet\n", 0}));

Row Value(const std::string& strValue, std::optional<UINT> uValue) {
    return {"[loginfo]\nlogLevel=" + strValue + "\n", uValue};
}

INSTANTIATE_TEST_SUITE_P(
    Numbers, ProfileText,
    testing::Values(Value("0", 0), Value("1", 1), Value("007", 7), Value("+1", 1), Value("-1", 4294967295U),
                    Value("-0", 0), Value("2147483647", 2147483647U), Value("2147483648", 2147483648U),
                    Value("-2147483648", 2147483648U), Value("4294967295", 4294967295U), Value("4294967296", 0),
                    Value("4294967297", 1), Value("-4294967297", 4294967295U), Value("18446744073709551618", 2),
                    Value("42A94967297", 42), Value("B42", 0), Value("abc", 0), Value("0x10", 0), Value("1.9", 1),
                    Value("1e3", 1), Value("- 5", 0), Value("--5", 0), Value("+-5", 0), Value("+", 0), Value("-", 0),
                    Value("=5", 0), Value("2=5", 2), Value("\xD9\xA2", 0), Value("5\xC2\xA0", 5), Value("", kMissing),
                    Value("   ", kMissing), Value("\"5\"", 5), Value("'5'", 5), Value("\" 5 \"", 5),
                    Value("\"\"", kMissing), Value("\"5'", 0), Value("\"5", 0), Value("\"", 0), Value("5\"", 5)));

INSTANTIATE_TEST_SUITE_P(LongAndBinary, ProfileText,
                         testing::Values(Row{std::string(100000, 'x') + "\n[loginfo]\nlogLevel=2\n", 2},
                                         Row{"[" + std::string(100000, 'x') + "]\n[loginfo]\nlogLevel=2\n", 2},
                                         Row{"[loginfo]\n" + std::string(100000, 'k') + "=1\nlogLevel=2\n", 2},
                                         Row{"[loginfo]\nlogLevel=" + std::string(100000, ' ') + "2\n", 2},
                                         Row{"[loginfo]\nlogLevel=2" + std::string(100000, 'x') + "\n", 2},
                                         Row{"[loginfo]\nlogLevel=" + std::string(100000, '0') + "2\n", 2},
                                         Row{"[loginfo]\nlog\0Level=9\nlogLevel=2\0\n"s, 2},
                                         Row{"\0[loginfo]\nlogLevel=2\n"s, kMissing}, Row{"\xFF\xFE[\0l\0"s, kMissing},
                                         Row{"[loginfo]\rlogLevel=2\r", kMissing}));

TEST(ProfileNames, AreTheCallers) {
    const char* const kText = "[a]\nx=1\ny=2\n[b c]\nx=3\n[\xC3\x84]\nx=4\n";
    EXPECT_EQ(vextk::FindProfileInteger(kText, "a", "y"), 2U);
    EXPECT_EQ(vextk::FindProfileInteger(kText, "B C", "X"), 3U);
    EXPECT_EQ(vextk::FindProfileInteger(kText, "\xC3\x84", "x"), 4U);
    EXPECT_EQ(vextk::FindProfileInteger(kText, "\xC3\xA4", "x"), kMissing) << "only ASCII letters match in any case";
    EXPECT_EQ(vextk::FindProfileInteger(kText, "", "x"), kMissing);
    EXPECT_EQ(vextk::FindProfileInteger(kText, "a", ""), kMissing);
    EXPECT_EQ(vextk::FindProfileInteger("[]\n=5\n", "", ""), 5U);
    EXPECT_EQ(vextk::FindProfileInteger("[a]\n#x=1\n;x=2\n", "a", "#x"), kMissing) << "a comment contains no key";
    EXPECT_EQ(vextk::FindProfileInteger("[a]\n#x=1\n;x=2\n", "a", ";x"), kMissing);
}

// Cutting the text anywhere gives the value, a shorter number, or nothing, and never reads past the end.
TEST(ProfileNames, MatchInAnyCaseFromTheFirstToTheLastLetter) {
    EXPECT_EQ(vextk::FindProfileInteger("[AZ]\nza=1", "az", "ZA"), 1U);
    // These surround the letters.
    for (const char* const pszPair : {"@`", "[{"}) {
        const std::string strText = "[s]\nx" + std::string(1, pszPair[0]) + "=1";
        EXPECT_EQ(vextk::FindProfileInteger(strText, "s", "x" + std::string(1, pszPair[1])), kMissing) << pszPair;
    }
}

TEST(ProfileNames, CutAnywhere) {
    const std::string strText = "[loginfo]\r\nlogLevel=123";
    for (size_t cb = 0; cb <= strText.size(); ++cb) {
        const std::string strCut(strText.data(), cb);
        const std::optional<UINT> uValue = vextk::FindProfileInteger(strCut, "loginfo", "logLevel");
        const size_t cDigits = cb <= 20 ? 0 : cb - 20;
        constexpr UINT kValues[] = {0, 1, 12, 123};
        EXPECT_EQ(uValue, cDigits == 0 ? std::optional<UINT>() : kValues[cDigits]) << cb;
    }
}

}  // namespace
