// Several logs in the order of time.
#include "Merge.h"

#include <gmock/gmock.h>

#include "Collected.h"
#include "Row.h"
#include "TempDirectory.h"

namespace {

// A record at a second of one minute. Its message is its name.
std::string Record(const std::string& strName, int nSecond) {
    return Entry(strName, "Function", 7,
                 "2024-03-05 09:07:" + std::string(nSecond < 10 ? "0" : "") + std::to_string(nSecond) + ":000") +
           std::string(kEnd);
}

std::string Minimal(const std::string& strName, int nSecond) {
    return "[05/Mar/2024:09:07:" + std::string(nSecond < 10 ? "0" : "") + std::to_string(nSecond) +
           " CET] [4711 12d][INFO]" + strName + "\n";
}

struct Names : vexlog::RecordSink {
    void OnRecord(const vexlog::Record& record) override {
        strNames += record.kind == vexlog::Kind::kEmpty ? "_" : std::string(record.message);
        inputs.emplace_back(record.input);
    }
    std::string strNames;
    std::vector<std::string> inputs;
};

struct MergeRow : Row {
    std::vector<std::string> logs;
    std::string strExpected;
};

class MergeTest : public testing::TestWithParam<MergeRow> {};

TEST_P(MergeTest, OrdersByTime) {
    const TempDirectory directory;
    std::vector<std::string> paths;
    for (const std::string& strLog : GetParam().logs) {
        paths.push_back(directory.Write(std::to_string(paths.size()), std::string(kHead) + strLog));
    }
    Names names;
    vexlog::Merge(paths).Read(names, [](const vexlog::Source&) {});
    EXPECT_EQ(names.strNames, GetParam().strExpected);
}

INSTANTIATE_TEST_SUITE_P(
    Logs, MergeTest,
    testing::Values(
        MergeRow{{"CurrentThenRotated"}, {Record("c", 3) + Record("d", 4), Record("a", 1) + Record("b", 2)}, "abcd"},
        MergeRow{{"Overlapping"}, {Record("a", 1) + Record("c", 3), Record("b", 2) + Record("d", 4)}, "abcd"},
        MergeRow{{"Three"}, {Record("c", 3), Record("a", 1), Record("b", 2)}, "abc"},
        MergeRow{{"EqualTimesInTheOrderGiven"}, {Record("a", 1) + Record("b", 1), Record("c", 1)}, "abc"},
        MergeRow{{"Empty"}, {"", Record("a", 1), ""}, "a"},
        MergeRow{{"FragmentsStayBehindTheirRecord"},
                 {"x\r\n\r\n" + Record("b", 2) + "y\r\n\r\n" + Record("d", 4), Record("a", 1) + Record("c", 3)},
                 "axbycd"},
        MergeRow{{"EmptyEntriesStayBehindTheirRecord"},
                 {Record("a", 1) + "\r\n\r\n" + Record("c", 3), Record("b", 2)},
                 "a_bc"},
        MergeRow{{"OneWrongTimeHoldsNothingUp"},
                 {Record("a", 1) + Record("b", 59) + Record("c", 2) + Record("e", 4), Record("d", 3)},
                 "abcde"},
        MergeRow{{"OneTimeTooEarly"},
                 {Record("a", 1) + Record("c", 3) + Record("d", 0) + Record("f", 5), Record("b", 2) + Record("e", 4)},
                 "acdbef"},
        MergeRow{{"ALaterTimeTooEarlyMovesNothing"},
                 {Record("a", 1) + Record("c", 3) + Record("e", 5) + Record("x", 0), Record("b", 2) + Record("d", 4)},
                 "abcexd"},
        MergeRow{{"MinimalLogger"}, {Minimal("b", 2) + Minimal("d", 4), Record("a", 1) + Record("c", 3)}, "abcd"}),
    RowName);

// A minimal record has whole seconds, so it seems to be earlier than the record before it.
TEST(MergeMinimalTest, ItsWholeSecondDoesNotMoveTheRecordBeforeIt) {
    const TempDirectory directory;
    const auto at = [](const char* pszMicros, const char* pszName) {
        return Entry(pszName, "Function", 7, std::string("2024-03-05 09:07:01:") + pszMicros) + std::string(kEnd);
    };
    const std::vector<std::string> paths = {
        directory.Write("one", at("900000", "b") + Minimal("c", 1) + at("950000", "d")),
        directory.Write("two", at("500000", "a"))};
    Names names;
    vexlog::Merge(paths).Read(names, [](const vexlog::Source&) {});
    EXPECT_EQ(names.strNames, "abcd");
}

TEST(MergeInputTest, EveryRecordHasTheNameOfItsLog) {
    const TempDirectory directory;
    const std::vector<std::string> paths = {directory.Write("one", Record("b", 2)),
                                            directory.Write("two", Record("a", 1))};
    Names names;
    vexlog::Merge(paths).Read(names, [](const vexlog::Source&) {});
    EXPECT_THAT(names.inputs, testing::ElementsAre(paths[1], paths[0]));
}

// Many times more records than one piece has, and text without any time.
TEST(MergeBoundTest, LargeLogsAreWhole) {
    const TempDirectory directory;
    std::string strEven(kHead);
    std::string strOdd(kHead);
    std::string strExpected;
    for (int i = 0; i < 20'000; ++i) {
        const std::string strName = std::to_string(i) + " ";
        (i % 2 == 0 ? strEven : strOdd) +=
            Entry(strName, "Function", 7, "2024-03-05 09:07:02:" + std::to_string(100'000 + i)) + std::string(kEnd);
        strExpected += strName;
    }
    const std::string strText(3'000'000, 'x');
    const std::vector<std::string> paths = {directory.Write("even", strEven), directory.Write("odd", strOdd),
                                            directory.Write("text", strText)};
    Names names;
    vexlog::Merge merge(paths);
    merge.Read(names, [](const vexlog::Source&) {});
    std::erase(names.strNames, 'x');
    EXPECT_EQ(names.strNames, strExpected);
    EXPECT_EQ(merge.BytesRead(), merge.TotalBytes());
    EXPECT_EQ(merge.TotalBytes(), strEven.size() + strOdd.size() + strText.size());
}

TEST(MergeFailureTest, ALogThatCannotBeOpenedIsAFailureAtOnce) {
    const TempDirectory directory;
    EXPECT_THROW(vexlog::Merge({directory.Write("one", Record("a", 1)), directory.Path("missing")}), vexlog::ReadError);
}

// A damaged log ends where the damage is; the others are read to their ends.
TEST(MergeFailureTest, TheOtherLogsAreReadToTheirEnds) {
    const TempDirectory directory;
    const std::vector<std::string> paths = {directory.Write("gz", "\x1F\x8B no gzip"),
                                            directory.Write("one", Record("a", 1) + Record("b", 2))};
    Names names;
    vexlog::Merge merge(paths);
    EXPECT_THROW(merge.Read(names, [](const vexlog::Source&) {}), vexlog::ReadError);
    EXPECT_EQ(names.strNames, "ab");
}

}  // namespace
