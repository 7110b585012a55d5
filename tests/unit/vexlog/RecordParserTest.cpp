// What the parser finds in whole, cut, torn and mixed logs.
#include "RecordParser.h"

#include <gmock/gmock.h>

#include "Collected.h"
#include "Row.h"

namespace {

using namespace std::string_literals;

const std::string kOne = "record INFO P4711 T-12 2024-03-05T09:07:02.048213 src.cpp-Function(7): one";
const std::string kTwo = "record INFO P4711 T-12 2024-03-05T09:07:02.048213 src.cpp-Function(7): two";
const std::string kContinuedTwo = "continued P4711 Function: two";
const std::string kMinimalOne = "minimal INFO P4711 T-1236490496 2024-03-05T09:07:02.000000: one";
const std::string kMinimalCore = "[05/Mar/2024:09:07:02 CET] [4711 3058476800d]";

struct LogRow : Row {
    std::string strBytes;
    std::vector<std::string> expected;
};

std::string Log(std::initializer_list<std::string> parts) {
    std::string strLog(kHead);
    for (const std::string& strPart : parts) {
        strLog += strPart;
    }
    return strLog;
}

std::string Whole(std::string_view message) {
    return Entry(message) + std::string(kEnd);
}

const std::string kPath250(250, 'p');
const std::string kMonth31(31, 'm');
const std::string kFields = "[P4711] [T-12] [2024-03-05 09:07:02:48213] [";

std::vector<LogRow> Rows() {
    return {
        {{"Nothing"}, "", {}},
        {{"HeaderAlone"}, Log({}), {}},
        {{"TwoRecords"}, Log({Whole("one"), Whole("two")}), {kOne, kTwo}},
        {{"WithoutHeader"}, Whole("one"), {kOne}},
        {{"CutInARecord"}, Log({"unction(7)]: zero\r\n\r\n", Whole("one")}), {"fragment: unction(7)]: zero", kOne}},
        {{"CutInALineEnd"}, Log({"\n\r\n", Whole("one")}), {kOne}},
        {{"CutBeforeALineEnd"}, Log({"\r\n", Whole("one")}), {kOne}},
        // A cut drops the last line end of the file.
        {{"CutThenContinued"}, Log({Entry("one") + "\r\n", Whole("two")}), {kOne, kTwo}},
        {{"CutAtTheEnd"}, Log({Entry("one") + "\r\n"}), {kOne}},
        {{"UnfinishedMessage"},
         Log({Whole("one"), Entry("tw")}),
         {kOne, "record INFO P4711 T-12 2024-03-05T09:07:02.048213 src.cpp-Function(7): tw (torn)"}},
        {{"UnfinishedHeader"}, Log({Whole("one"), "[INFO] [P4711] [T-1"}), {kOne, "fragment: [INFO] [P4711] [T-1"}},
        {{"UnfinishedSource"},
         Log({"[INFO] " + kFields + "src.c"}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 src.c-():  (torn)"}},
        {{"OneInTheOther"},
         Log({"[INFO] [P4711] [T-12] [2024-03-05 09:07:0", Whole("one")}),
         {"fragment: [INFO] [P4711] [T-12] [2024-03-05 09:07:0", kOne}},
        {{"OneInTheOthersMessage"},
         Log({Entry("on"), Whole("two")}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 src.cpp-Function(7): on (torn)", kTwo}},
        {{"OneInTheOthersSource"},
         Log({"[INFO] " + kFields + "sr", Whole("two")}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 sr-():  (torn)", kTwo}},
        {{"OneInPlaceOfTheOthersSource"},
         Log({"[INFO] " + kFields.substr(0, kFields.size() - 1), Whole("two")}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 -():  (torn)", kTwo}},
        // The rest of a longer record that was overwritten cannot be told from a message with an empty line.
        {{"RestOfALongerOne"},
         Log({Whole("one"), "longer message\r\n\r\n", Whole("two")}),
         {kOne, "continued P4711 Function: longer message", kTwo}},
        {{"HeaderInMidFile"}, Log({Whole("one"), std::string(kHead), Whole("two")}), {kOne, kTwo}},
        {{"HeaderInMidLine"},
         Log({Entry("one") + "\r\n", std::string(kHead) + "rest\r\n\r\n", Whole("two")}),
         {kOne, "fragment: rest", kTwo}},
        {{"HeaderBeforeARecordInMidLine"}, Log({"rest", std::string(kHead), Whole("one")}), {"fragment: rest", kOne}},
        {{"TypeWithADigitBehindARest"},
         Log({"\xC3\xA9[INF0]" + Whole("one").substr(6)}),
         {"fragment: \xC3\xA9", "record INF0" + kOne.substr(11)}},
        {{"NoTypeBehindARest"},
         Log({"\xC3\xA9[0NFO]" + Whole("one").substr(6)}),
         {"fragment: \xC3\xA9[0NFO] ", "record " + kOne.substr(11)}},
        {{"EmptyEntries"}, Log({Whole("one"), "\r\n\r\n\r\n\r\n", Whole("two")}), {kOne, "empty 2", kTwo}},
        {{"EmptyEntriesAlone"}, Log({"\r\n\r\n\r\n\r\n\r\n\r\n"}), {"empty 3"}},
        {{"HalfALineEndThenTheRestOfARecord"},
         Log({Whole("one"), "[INFO] [P47\r\n\r\n\r\n] [T-12] zero\r\n\r\n"}),
         {kOne, "fragment: [INFO] [P47", "fragment: ] [T-12] zero"}},
        // Half an entry may be the end of a message.
        {{"EmptyEntryThenCut"}, Log({Whole("one"), "\r\n\r\n\r\n", Whole("two")}), {kOne, "empty 1", kTwo}},
        {{"MessageOfTwoLines"},
         Log({Whole("o\nn\r\ne"), Whole("two")}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 src.cpp-Function(7): o\nn\r\ne", kTwo}},
        {{"EmptyLineOfAMessage"},
         Log({Whole("one"), Whole("o\n\nne"), Whole("two")}),
         {kOne, "record INFO P4711 T-12 2024-03-05T09:07:02.048213 src.cpp-Function(7): o\n\nne", kTwo}},
        {{"MessageWithALineEnd"}, Log({Whole("one\r\n"), Whole("two")}), {kOne, kTwo}},
        {{"MessageWithALineFeed"}, Log({Whole("one\n"), Whole("two")}), {kOne, kTwo}},
        {{"MessageWithALineEndThenEmptyEntry"},
         Log({Whole("one\r\n"), "\r\n\r\n", Whole("two")}),
         {kOne, "empty 1", kTwo}},
        {{"MessageWithAnEmptyLine"}, Log({Whole("one\r\n\r\ntwo"), Whole("two")}), {kOne, kContinuedTwo, kTwo}},
        {{"MessageWithSeveralEmptyLines"},
         Log({Whole("one\r\n\r\n\r\n\r\n\r\ntwo\r\n\r\ntwo\r\n"), Whole("two")}),
         {kOne, kContinuedTwo, kContinuedTwo, kTwo}},
        {{"MessageThatBeginsWithAnEmptyLine"},
         Log({Whole("\r\n\r\ntwo"), Whole("one")}),
         {kOne.substr(0, kOne.size() - 3), kContinuedTwo, kOne}},
        {{"MessageWithAnEmptyLineUnfinished"},
         Log({Whole("one"), "tw"}),
         {kOne, "continued P4711 Function: tw (torn)"}},
        {{"TextBehindATornRecord"},
         Log({"[INFO] " + kFields + "sr\r\n\r\n", "rest\r\n\r\n"}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 sr-():  (torn)", "fragment: rest"}},
        {{"TextInAnotherFile"}, Log({Whole("one"), Log({"rest\r\n\r\n"})}), {kOne, "fragment: rest"}},
        {{"LineFeedsOnly"},
         Entry("one") + "\n\n" + Entry("two") + "\n\nrest\n",
         {kOne, kTwo, "continued P4711 Function: rest"}},
        {{"DoubledCarriageReturns"}, Entry("one") + "\r\r\n\r\r\n" + Entry("two") + "\r\r\n\r\r\n", {kOne, kTwo}},
        {{"NulsBetween"},
         Log({Whole("one"), std::string(5, '\0'), Whole("two")}),
         {kOne, "fragment: " + std::string(5, '\0'), kTwo}},
        {{"NulsInAMessage"},
         Log({Whole("o\0ne"s)}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 src.cpp-Function(7): o\0ne"s}},
        {{"EmptyMessage"},
         Log({Whole(""), Whole("one")}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 src.cpp-Function(7): ", kOne}},
        {{"NoType"}, Log({Whole("one").substr(7)}), {"record  P4711" + kOne.substr(17)}},
        {{"TypeInOtherWords"}, Log({"Careful: " + Whole("one").substr(7)}), {"record Careful:" + kOne.substr(11)}},
        {{"TwoTypeWords"}, Log({"[APP] " + Whole("one")}), {"record [APP] [INFO]" + kOne.substr(11)}},
        {{"NoFunction"},
         Log({"[INFO] " + kFields + "a-b/src.cpp(7)]: one\r\n\r\n"}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 a-b/src.cpp-(7): one"}},
        {{"DashInThePath"},
         Log({"[INFO] " + kFields + "a-b/src.cpp-F(-7)]: one\r\n\r\n"}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 a-b/src.cpp-F(-7): one"}},
        {{"SourceFileWithoutFunction"},
         Log({"[INFO] " + kFields + "a-src.cpp(7)]: one\r\n\r\n"}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 a-src.cpp-(7): one"}},
        {{"LineNumberThatDoesNotFit"},
         Log({"[INFO] " + kFields + "src.cpp-F(2147483648)]: one\r\n\r\n"}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 src.cpp-F(2147483648)-(): one"}},
        {{"FewMicroseconds"},
         Log({Whole("one").replace(43, 5, "007")}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.000007 src.cpp-Function(7): one"}},
        {{"NoSuchDay"},
         Log({Whole("one").replace(28, 5, "02-30")}),
         {"fragment: " + Entry("one").replace(28, 5, "02-30")}},
        {{"NoSuchTime"}, Log({Whole("one").replace(28, 2, "13")}), {"fragment: " + Entry("one").replace(28, 2, "13")}},
        // A header of more than 259 characters is cut, and the message follows at once.
        {{"CutHeader"},
         Log({"[INFO] " + kFields + kPath250.substr(0, 259 - kFields.size()) + "one]: \r\n\r\n"}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 " + kPath250.substr(0, 259 - kFields.size()) +
          "-(): one]: "}},
        {{"LongestHeader"},
         Log({"[INFO] " + kFields + kPath250.substr(0, 259 - kFields.size() - 8) + "-F(7)]: one\r\n\r\n"}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 " + kPath250.substr(0, 259 - kFields.size() - 8) +
          "-F(7): one"}},
        {{"Garbled"},
         Log({Whole(Garbled("Java_vex_jni_TAVClientJNI_AddFilter") + " Enter.")}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 src.cpp-Function(7): "
          "Java_vex_jni_TAVClientJNI_AddFilter Enter."}},
        {{"Minimal"},
         kMinimalCore + "[INFO]one\n" + kMinimalCore + "[ERRO]two\n",
         {kMinimalOne, "minimal ERRO P4711 T-1236490496 2024-03-05T09:07:02.000000: two"}},
        {{"MinimalBetweenRecords"},
         Log({Whole("one"), kMinimalCore + "[INFO]one\n", Whole("two")}),
         {kOne, kMinimalOne, kTwo}},
        {{"MinimalWithoutMessage"},
         Log({kMinimalCore, Whole("one"), kMinimalCore + kMinimalCore + "[INFO]one\n"}),
         {"minimal  P4711 T-1236490496 2024-03-05T09:07:02.000000:  (torn)", kOne,
          "minimal  P4711 T-1236490496 2024-03-05T09:07:02.000000:  (torn)", kMinimalOne}},
        {{"MinimalOfTwoLines"},
         kMinimalCore + "[INFO]o\nne\n" + kMinimalCore + "[INFO]one\n",
         {"minimal INFO P4711 T-1236490496 2024-03-05T09:07:02.000000: o\nne", kMinimalOne}},
        {{"MinimalThenEmptyEntry"},
         Log({Whole("two"), kMinimalCore + "[INFO]one\n\r\n\r\n", Whole("two")}),
         {kTwo, kMinimalOne, "empty 1", kTwo}},
        {{"MinimalBetweenARecordAndItsEnd"},
         Log({Entry("one"), kMinimalCore + "[INFO]one\n", std::string(kEnd), Whole("two")}),
         {kOne, kMinimalOne, kTwo}},
        {{"SeveralMinimalBetweenARecordAndItsEnd"},
         Log({Entry("one"), kMinimalCore + "[INFO]one\n" + kMinimalCore + "[INFO]one\n", std::string(kEnd),
              Whole("two")}),
         {kOne, kMinimalOne, kMinimalOne, kTwo}},
        {{"MinimalBetweenALineFeedAndTheEnd"},
         Log({Entry("one\n"), kMinimalCore + "[INFO]one\n", std::string(kEnd), Whole("two")}),
         {kOne, kMinimalOne, kTwo}},
        {{"MinimalWithoutMessageBetweenARecordAndItsEnd"},
         Log({Entry("one"), kMinimalCore, std::string(kEnd), Whole("two")}),
         {kOne, "minimal  P4711 T-1236490496 2024-03-05T09:07:02.000000:  (torn)", kTwo}},
        {{"MinimalBetweenTheRestOfAMessageAndItsEnd"},
         Log({Whole("one"), "two", kMinimalCore + "[INFO]one\n", std::string(kEnd), Whole("two")}),
         {kOne, kContinuedTwo, kMinimalOne, kTwo}},
        {{"MinimalBetweenARecordAndItsEndThenEmptyEntry"},
         Log({Entry("one"), kMinimalCore + "[INFO]one\n", "\r\n\r\n\r\n\r\n", Whole("two")}),
         {kOne, kMinimalOne, "empty 1", kTwo}},
        {{"MinimalBehindARecordWithoutItsEnd"},
         Log({Entry("on"), kMinimalCore + "[INFO]one\n", Whole("two")}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 src.cpp-Function(7): on (torn)", kMinimalOne, kTwo}},
        {{"MinimalInARecordsHeader"},
         Log({"[INFO] " + kFields + "sr", kMinimalCore + "[INFO]one\n", std::string(kEnd), Whole("two")}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 sr-():  (torn)", kMinimalOne, kTwo}},
        {{"MinimalInPlaceOfARecordsSource"},
         Log({"[INFO] " + kFields.substr(0, kFields.size() - 1), kMinimalCore + "[INFO]one\n", std::string(kEnd),
              Whole("two")}),
         {"record INFO P4711 T-12 2024-03-05T09:07:02.048213 -():  (torn)", kMinimalOne, kTwo}},
        {{"MinimalBehindACutRecord"},
         Log({Entry("one") + "\r\n", kMinimalCore + "[INFO]one\n", Whole("two")}),
         {kOne, kMinimalOne, kTwo}},
        {{"RecordInAMinimalOne"},
         Log({Whole("two"), kMinimalCore, Whole("one"), "[INFO]one\n", Whole("two")}),
         {kTwo, "minimal  P4711 T-1236490496 2024-03-05T09:07:02.000000:  (torn)", kOne, "fragment: [INFO]one", kTwo}},
        {{"MinimalInAnotherLanguage"},
         "[05/M\xC3\xA4r/2024:09:07:02 CET] [4711 12d][WARN]one\n",
         {"minimal WARN P4711 T12 no time: one"}},
        {{"MinimalWithTheLongestMonth"},
         "[05/" + kMonth31 + "/2024:09:07:02 CET] [4711 12d][WARN]one\n",
         {"minimal WARN P4711 T12 no time: one"}},
        {{"MinimalWithAMonthThatIsTooLong"},
         "[05/M" + kMonth31 + "/2024:09:07:02 CET] [4711 12d][WARN]one",
         {"fragment: [05/M" + kMonth31 + "/2024:09:07:02 CET] [4711 12d][WARN]one"}},
        {{"MinimalWithAYearThatIsTooLong"},
         "[05/Mar/202400:09:07:02 CET] [4711 12d][WARN]one",
         {"fragment: [05/Mar/202400:09:07:02 CET] [4711 12d][WARN]one"}},
        {{"MinimalWithThreeDigitsOfMinutes"},
         "[05/Mar/2024:09:007:02 CET] [4711 12d][WARN]one",
         {"fragment: [05/Mar/2024:09:007:02 CET] [4711 12d][WARN]one"}},
        {{"NoLogAtAll"}, "#!/bin/sh\necho [P1] [T2]\n", {"fragment: #!/bin/sh\necho [P1] [T2]"}},
    };
}

class RecordParserTest : public testing::TestWithParam<LogRow> {};

TEST_P(RecordParserTest, FindsWhatIsThere) {
    for (const std::size_t cbPiece : {std::size_t{1}, std::size_t{7}, GetParam().strBytes.size() + 1}) {
        SCOPED_TRACE(cbPiece);
        EXPECT_THAT(Collected(GetParam().strBytes, cbPiece), testing::ElementsAreArray(GetParam().expected));
    }
}

TEST_P(RecordParserTest, ItemsDoNotOverlap) {
    struct Places : vexlog::RecordSink {
        void OnRecord(const vexlog::Record& record) override {
            EXPECT_GE(record.nOffset, nNext);
            EXPECT_LT(record.nOffset, cbLog);
            EXPECT_GT(record.cbSize, 0U);
            nNext = record.nOffset + record.cbSize;
        }
        std::uint64_t nNext = 0;
        std::uint64_t cbLog = 0;
    } places;
    places.cbLog = GetParam().strBytes.size();
    vexlog::RecordParser parser(places);
    parser.Feed(GetParam().strBytes);
    parser.Finish();
    EXPECT_LE(places.nNext, GetParam().strBytes.size());
}

INSTANTIATE_TEST_SUITE_P(Logs, RecordParserTest, testing::ValuesIn(Rows()), RowName);

// ---- Bounds ----

std::vector<std::string> Shortened(std::vector<std::string> lines) {
    for (std::string& strLine : lines) {
        strLine = strLine.substr(0, 10) + " " + std::to_string(strLine.size());
    }
    return lines;
}

TEST(RecordParserBoundTest, TheLongestMinimalRecordIsWhole) {
    std::string strMessage;
    for (int i = 0; i < 32767; ++i) {
        strMessage += Garbled("Java");
    }
    const std::vector<std::string> lines = Collected(kMinimalCore + "[INFO]" + strMessage + "\n", 4096);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].size(), kMinimalOne.size() - 3 + 4 * 32767);
    EXPECT_THAT(lines[0], testing::EndsWith("JavaJava"));
}

TEST(RecordParserBoundTest, AnOverlongRecordComesInPiecesAndTheNextOneWhole) {
    for (const std::string& strFiller :
         {std::string("x"), std::string("\0", 1), std::string("x\n"), std::string("[")}) {
        std::string strLong;
        while (strLong.size() < 5 * vexlog::RecordParser::kLongest) {
            strLong += strFiller;
        }
        const std::vector<std::string> lines = Collected(strLong + Whole("one") + Whole("two"), 100'000);
        ASSERT_GE(lines.size(), 5U);
        EXPECT_EQ(lines[lines.size() - 2], kOne);
        EXPECT_EQ(lines[lines.size() - 1], kTwo);
        for (const std::string& strLine : lines) {
            EXPECT_LE(strLine.size(), 2 * vexlog::RecordParser::kLongest + 20);
        }
    }
}

// Tries all places at which a piece of an overlong line can end.
TEST(RecordParserBoundTest, ARecordAtTheEndOfAPieceIsFound) {
    const std::size_t cbPiece = vexlog::RecordParser::kLongest - vexlog::kLongestCore;
    for (std::size_t cb = cbPiece - 80; cb < cbPiece + 5; ++cb) {
        const std::string strLog =
            std::string(cb, 'x') + Whole("one") + std::string(vexlog::RecordParser::kLongest, 'y');
        const std::vector<std::string> lines = Collected(strLog, 100'000);
        EXPECT_THAT(lines, testing::Contains(kOne)) << cb << ": " << testing::PrintToString(Shortened(lines));
    }
}

struct LongLineRow : Row {
    std::string strBefore;
    std::string strLong;
    std::vector<std::string> around;  // the records before and behind the line
};

class LongLineTest : public testing::TestWithParam<LongLineRow> {};

// The line arrives in several pieces, so that the buffer moves in the middle of it.
TEST_P(LongLineTest, LosesNoRecordAndNoText) {
    struct Collected : Collector {
        void OnRecord(const vexlog::Record& record) override {
            EXPECT_GE(record.nOffset, nNext);
            nNext = record.nOffset + record.cbSize;
            cb += record.cbSize;
            EXPECT_LE(record.cbSize, 2 * vexlog::RecordParser::kLongest + 1);
            if (record.kind == vexlog::Kind::kRecord || record.kind == vexlog::Kind::kMinimal) {
                Collector::OnRecord(record);
            }
        }
        std::uint64_t nNext = 0;
        std::uint64_t cb = 0;
    };
    const std::string strLog = GetParam().strBefore + GetParam().strLong + "\r\n\r\n" + Whole("two");
    for (const std::size_t cbPiece : {std::size_t{4096}, std::size_t{65536}, std::size_t{262144}, strLog.size()}) {
        SCOPED_TRACE(cbPiece);
        Collected collected;
        vexlog::RecordParser parser(collected);
        for (std::string_view rest = strLog; !rest.empty(); rest.remove_prefix(std::min(cbPiece, rest.size()))) {
            parser.Feed(rest.substr(0, cbPiece));
        }
        parser.Finish();
        EXPECT_THAT(collected.lines, testing::ElementsAreArray(GetParam().around));
        // An empty line behind a piece that ended because of its length belongs to no item.
        EXPECT_GE(collected.cb + 2, strLog.size());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Lines, LongLineTest,
    testing::Values(LongLineRow{{"NulsBehindRecords"},
                                Whole("one") + Whole("two") + Whole("one"),
                                std::string(2'000'000, '\0'),
                                {kOne, kTwo, kOne, kTwo}},
                    LongLineRow{{"TextBehindAFragment"}, Whole("one") + "x\n", std::string(800'000, 'A'), {kOne, kTwo}},
                    LongLineRow{{"FromTheBeginning"}, "", std::string(800'000, 'A'), {kTwo}},
                    LongLineRow{{"BracketsBehindAMinimalRecord"},
                                kMinimalCore + "[INFO]one\n" + Whole("two") + "x\r\n",
                                std::string(800'000, '['),
                                {kMinimalOne, kTwo, kTwo}}),
    RowName);

// Each field of a record's core has a greatest length. Text with a longer field is no core, in a line of any length.
TEST(RecordParserBoundTest, ANumberOfTooManyDigitsMakesNoRecord) {
    const std::string strZeros(300, '0');
    const std::string strLog = "[INFO] [P" + strZeros + "1] [T2] [2024-03-05 09:07:02:48213] [a-F(7)]: x\r\n\r\n";
    EXPECT_THAT(Collected(strLog, 4096), testing::ElementsAre("fragment: " + strLog.substr(0, strLog.size() - 4)));
}

TEST(RecordParserBoundTest, OffsetsAndSizesCoverTheBytes) {
    struct Sizes : vexlog::RecordSink {
        void OnRecord(const vexlog::Record& record) override {
            EXPECT_EQ(record.nOffset, nNext);
            nNext = record.nOffset + record.cbSize;
        }
        std::uint64_t nNext = 0;
    } sizes;
    vexlog::RecordParser parser(sizes);
    const std::string strLog =
        Whole("one") + "rest\r\n\r\n" + Whole("two") + kMinimalCore + "[INFO]one\n" + Entry("three");
    for (const char ch : strLog) {
        parser.Feed({&ch, 1});
    }
    parser.Finish();
    EXPECT_EQ(sizes.nNext, strLog.size());
}

TEST(RecordParserFlushTest, HandsOverACompleteLastLineOnly) {
    Collector collector;
    vexlog::RecordParser parser(collector);
    parser.Feed(kMinimalCore + "[INFO]one\n");
    EXPECT_THAT(collector.lines, testing::IsEmpty());
    parser.Flush();
    EXPECT_THAT(collector.lines, testing::ElementsAre(kMinimalOne));
    parser.Feed(Entry("on"));
    parser.Flush();
    parser.Feed("e\r\n\r\n");
    EXPECT_THAT(collector.lines, testing::ElementsAre(kMinimalOne, kOne));
}

// The four bytes that end a record may arrive in two pieces.
TEST(RecordParserFlushTest, TheRestOfALineEndIsNoEntry) {
    Collector collector;
    vexlog::RecordParser parser(collector);
    parser.Feed(Entry("one") + "\r\n");
    parser.Flush();
    EXPECT_THAT(collector.lines, testing::ElementsAre(kOne));
    parser.Feed("\r\n" + Entry("two") + "\r\n");
    parser.Flush();
    parser.Feed("\r\n\r\n\r\n" + Entry("one") + "\r\n");
    parser.Finish();
    EXPECT_THAT(collector.lines, testing::ElementsAre(kOne, kTwo, "empty 1", kOne));
}

// One more empty line than a record's end has is no entry without text.
TEST(RecordParserFlushTest, TheRestOfALineEndIsNoHalfOfAnEntry) {
    Collector collector;
    vexlog::RecordParser parser(collector);
    parser.Feed(Entry("one") + "\r\n");
    parser.Flush();
    parser.Feed("\r\n\r\n" + Whole("two"));
    EXPECT_THAT(collector.lines, testing::ElementsAre(kOne, kTwo));
}

// The rest of a message may be written after the reader has found the file quiet.
TEST(RecordParserFlushTest, TheRestOfAMessageIsMarkedAlsoLater) {
    Collector collector;
    vexlog::RecordParser parser(collector);
    parser.Feed(Entry("one") + "\r\n");
    parser.Flush();
    parser.Feed("\r\ntwo\r\n\r\n");
    EXPECT_THAT(collector.lines, testing::ElementsAre(kOne, kContinuedTwo));
}

// A message of many paragraphs must not make the reader keep its record for ever.
TEST(RecordParserBoundTest, TheRestOfAMessageHasABound) {
    std::string strLog = Whole("one");
    while (strLog.size() < 2 * vexlog::RecordParser::kLongest) {
        strLog += "two\r\n\r\n";
    }
    const std::vector<std::string> lines = Collected(strLog, 4096);
    ASSERT_GT(lines.size(), 3U);
    EXPECT_EQ(lines[0], kOne);
    EXPECT_EQ(lines[1], kContinuedTwo);
    EXPECT_EQ(lines.back(), "fragment: two");
    const auto firstFragment = std::find(lines.begin(), lines.end(), "fragment: two");
    EXPECT_TRUE(std::all_of(firstFragment, lines.end(), [](const std::string& str) { return str == "fragment: two"; }));
    EXPECT_EQ(Collected(strLog, 1'000'000), lines);
}

// Neither must many minimal records behind a record without its end.
TEST(RecordParserBoundTest, MinimalRecordsBehindATornOneAreNotKeptForEver) {
    struct Counter : vexlog::RecordSink {
        void OnRecord(const vexlog::Record&) override { ++c; }
        int c = 0;
    } counter;
    vexlog::RecordParser parser(counter);
    parser.Feed(Entry("one"));
    const std::string strMinimal = kMinimalCore + "[INFO]one\n";
    int cFed = 0;
    for (std::size_t cb = 0; cb < 3 * vexlog::RecordParser::kLongest; cb += strMinimal.size()) {
        parser.Feed(strMinimal);
        ++cFed;
    }
    EXPECT_GT(counter.c, cFed / 2);
    parser.Finish();
    EXPECT_EQ(counter.c, cFed + 1);
}

}  // namespace
