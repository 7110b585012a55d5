// The tests' own reader of log files: what it accepts as a record, and how it finds the entries.
#include <gtest/gtest.h>

#include "LogFile.h"

namespace {

const std::string kRecord =
    "[INFO] [P4711] [T-1234567] [2024-03-05 09:07:02:48213] [/src/bridge-Initialize(101)]: text";

TEST(LogFileReader, ReadsTheFieldsOfARecord) {
    const auto record = ParseLogRecord(kRecord);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->strType, "[INFO] ");
    EXPECT_EQ(record->nProcess, 4711);
    EXPECT_EQ(record->nThread, -1234567);
    EXPECT_EQ(record->strDate, "2024-03-05");
    EXPECT_EQ(record->strTime, "09:07:02");
    EXPECT_EQ(record->strMicros, "48213");
    EXPECT_EQ(record->strFile, "/src/bridge");
    EXPECT_EQ(record->strFunction, "Initialize");
    EXPECT_EQ(record->nLine, 101);
    EXPECT_EQ(record->strMessage, "text");
}

TEST(LogFileReader, ReadsARecordWithoutTypeFunctionAndMessage) {
    const auto record = ParseLogRecord("[P0001] [T0002] [2024-03-05 09:07:02:007] [file(-3)]: ");
    ASSERT_TRUE(record);
    EXPECT_EQ(record->strType, "");
    EXPECT_EQ(record->nProcess, 1);
    EXPECT_EQ(record->nThread, 2);
    EXPECT_EQ(record->strMicros, "007");
    EXPECT_EQ(record->strFile, "file");
    EXPECT_EQ(record->strFunction, std::nullopt);
    EXPECT_EQ(record->nLine, -3);
    EXPECT_EQ(record->strMessage, "");
}

TEST(LogFileReader, AcceptsNothingElseAsARecord) {
    for (const char* pszEntry :
         {"", "text", "[INFO] ", "[P1] [T0002] [2024-03-05 09:07:02:007] [file(3)]: ",
          "[P0001] [T2] [2024-03-05 09:07:02:007] [file(3)]: ", "[P0001] [T0002] [2024-03-05 09:07:02:07] [file(3)]: ",
          "[P0001] [T0002] [2024-03-05 09:07:02:1234567] [file(3)]: ",
          "[P0001] [T0002] [2024-3-5 09:07:02:007] [file(3)]: ", "[P0001] [T0002] [2024-03-05 09:07:02:007] [file]: ",
          "[P0001] [T0002] [2024-03-05 09:07:02:007] [file(3)"}) {
        EXPECT_FALSE(ParseLogRecord(pszEntry)) << pszEntry;
    }
}

using Entries = std::vector<std::string>;

TEST(LogFileReader, FindsTheEntriesOfAFreshFile) {
    const LogFile file = ParseLogFile("\xFF\xFE" + kRecord + "\r\n\r\n\r\n\r\n" + kRecord + "\r\nmore\r\n\r\n");
    EXPECT_TRUE(file.bHeader);
    EXPECT_EQ(file.entries, (Entries{kRecord, "", kRecord + "\r\nmore"}));
    EXPECT_EQ(file.strCut, "");
    EXPECT_EQ(file.strUnfinished, "");
}

TEST(LogFileReader, FindsTheEntriesAroundCuts) {
    const LogFile file = ParseLogFile("\xFF\xFEitialize(101)]: text\r\n\r\n" + kRecord + "\r\n" + kRecord + "\r\n");
    EXPECT_EQ(file.entries, (Entries{kRecord, kRecord}));
    EXPECT_EQ(file.strCut, "itialize(101)]: text");
    EXPECT_EQ(file.strUnfinished, "");
}

TEST(LogFileReader, ReportsAnUnfinishedEntry) {
    const LogFile file = ParseLogFile(kRecord + "\r\n\r\n[INFO");
    EXPECT_FALSE(file.bHeader);
    EXPECT_EQ(file.entries, Entries{kRecord});
    EXPECT_EQ(file.strUnfinished, "[INFO");
}

TEST(LogFileReader, AnEmptyFileHasNothing) {
    const LogFile file = ParseLogFile("");
    EXPECT_FALSE(file.bHeader);
    EXPECT_EQ(file.entries, Entries{});
}

}  // namespace
