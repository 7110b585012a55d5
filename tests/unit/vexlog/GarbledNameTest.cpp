// Names that the log got as narrow text in place of wide text. The tests garble them with libc.
#include "GarbledName.h"

#include <gtest/gtest.h>

#include "Collected.h"
#include "Row.h"

namespace {

struct NameRow : Row {
    std::string strText;
    std::string strDecoded;
};

class GarbledNameTest : public testing::TestWithParam<NameRow> {};

TEST_P(GarbledNameTest, IsDecoded) {
    std::string strDecoded;
    const bool bFound =
        vexlog::MayBeGarbled(GetParam().strText) && vexlog::DecodeGarbled(GetParam().strText, strDecoded);
    EXPECT_EQ(bFound, GetParam().strText != GetParam().strDecoded);
    EXPECT_EQ(bFound ? strDecoded : GetParam().strText, GetParam().strDecoded);
}

std::vector<NameRow> NameRows() {
    std::vector<NameRow> rows = {
        {{"Nothing"}, "", ""},
        {{"PlainText"}, "Function Enter.", "Function Enter."},
        {{"Accents"}, "caf\xC3\xA9 \xE4\xB8\xAD \xF0\x9F\x98\x80", "caf\xC3\xA9 \xE4\xB8\xAD \xF0\x9F\x98\x80"},
        {{"InTheMiddle"}, "from " + Garbled("Function") + " to " + Garbled("Other") + ".", "from Function to Other."},
        // The bytes of this character's number are letters, too, but no part begins with it.
        {{"BehindACharacterOfTwoLetters"},
         "\xE4\xB8\xAD" + Garbled("Function"),
         "\xE4\xB8\xAD"
         "Function"},
        {{"BeforeAnAccent"}, Garbled("Function") + "\xC3\xA9", "Function\xC3\xA9"},
        {{"OneBehindTheOther"}, Garbled("One") + Garbled("Three"), "OneThree"},
        {{"CutFromTheFront"},
         Garbled("Function").substr(2) + " Leave.",
         Garbled("Function").substr(2, 4) + "tion Leave."},
        {{"CutFromTheEnd"}, Garbled("Function").substr(0, 9), "Func" + Garbled("tion").substr(0, 3)},
        {{"NoLetters"}, "\xFD\x81\x81\x81\x81\x81 Enter.", "\xFD\x81\x81\x81\x81\x81 Enter."},
        {{"LettersAndAControlCharacter"}, Garbled("ab\nc"), Garbled("ab\nc")},
        {{"AZeroInTheMiddle"}, Garbled(std::string_view("a\0bc", 4)), Garbled(std::string_view("a\0bc", 4))},
        {{"Overlong"}, "\xFC\x80\x80\x80\x80\x80", "\xFC\x80\x80\x80\x80\x80"},
        {{"NotUtf8"}, "\xFE\xFF\xFF\xFF\xFF\xFF\xFF", "\xFE\xFF\xFF\xFF\xFF\xFF\xFF"},
    };
    const std::string strName = "Java_vex_jni_TAVClientJNI_GetLastErrorMessage";
    for (std::size_t cch = 3; cch <= strName.size(); ++cch) {
        rows.push_back({{"Length" + std::to_string(cch)},
                        Garbled(strName.substr(0, cch)) + " Enter.",
                        strName.substr(0, cch) + " Enter."});
    }
    // The garbled name is valid Unicode, so it looks like correct text.
    rows.push_back({{"Length2"}, Garbled("ab"), Garbled("ab")});
    rows.push_back({{"Length1"}, "a", "a"});
    return rows;
}

INSTANTIATE_TEST_SUITE_P(Names, GarbledNameTest, testing::ValuesIn(NameRows()), RowName);

}  // namespace
