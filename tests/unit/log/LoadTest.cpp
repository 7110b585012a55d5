// Many records from many threads and processes: each is there whole, once, and in its thread's order.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <thread>

#include "FileCalls.h"
#include "LogTest.h"
#include "Scale.h"

namespace {

class LoadTest : public LogTest {
protected:
    // Traces nRecords lines from each of nThreads threads: "thread 3 record 17".
    static void TraceFromThreads(int nThreads, int nRecords) {
        std::vector<std::thread> threads;
        for (int nThread = 0; nThread < nThreads; ++nThread) {
            threads.emplace_back([=] {
                for (int nRecord = 0; nRecord < nRecords; ++nRecord) {
                    CDebugLogMgr::MacroHelper(L"[INFO] ", 1, L"test.cpp", L"Function", 7)(L"thread %d record %d",
                                                                                          nThread, nRecord);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    // The same from processes with one thread each, which are returned.
    static std::vector<pid_t> TraceFromProcesses(int nProcesses, int nRecords, DWORD dwLimit, DWORD dwPercent) {
        std::vector<pid_t> children;
        std::fflush(nullptr);
        for (int nProcess = 0; nProcess < nProcesses; ++nProcess) {
            const pid_t nChild = fork();
            EXPECT_GE(nChild, 0);
            if (nChild == 0) {
                alarm(120);
                CDebugLogMgr::GetInstance()->SetTruncate(dwLimit, dwPercent);
                TraceFromThreads(1, nRecords);
                file_calls::WaitFor("CloseHandle", nRecords);
                EndChildAtOnce();
            }
            children.push_back(nChild);
        }
        ExpectSuccess(children);
        return children;
    }

    // What the records tell of each process's threads: the numbers of their records, as they follow in the file.
    static std::map<std::pair<long, int>, std::vector<int>> NumbersByThread(const std::vector<LogRecord>& records) {
        std::map<std::pair<long, int>, std::vector<int>> numbers;
        for (const LogRecord& record : records) {
            int nThread = -1;
            int nRecord = -1;
            int nUsed = 0;
            const char* const pszMessage = record.strMessage.c_str();
            EXPECT_EQ(std::sscanf(pszMessage, "thread %d record %d%n", &nThread, &nRecord, &nUsed), 2) << pszMessage;
            EXPECT_EQ(static_cast<size_t>(nUsed), record.strMessage.size()) << pszMessage;
            numbers[{record.nProcess, nThread}].push_back(nRecord);
        }
        return numbers;
    }

    // Consecutive to nRecords - 1, from 0 or, after cuts, from anywhere.
    static void ExpectConsecutive(const std::vector<int>& numbers, int nRecords, bool bFromZero) {
        ASSERT_FALSE(numbers.empty());
        EXPECT_EQ(numbers.back(), nRecords - 1);
        if (bFromZero) {
            EXPECT_EQ(numbers.front(), 0);
        }
        for (size_t i = 1; i < numbers.size(); ++i) {
            ASSERT_EQ(numbers[i], numbers[i - 1] + 1);
        }
    }
};

TEST_F(LoadTest, EightThreadsLoseNothing) {
    constexpr int kThreads = 8;
    const int nRecords = Scaled(20'000);
    InChild([&] {
        CDebugLogMgr::GetInstance()->SetTruncate(0x200000, 0);
        TraceFromThreads(kThreads, nRecords);
        WaitUntilWritten(LogPath());
    });
    const LogFile file = ReadLogFile(LogPath());
    EXPECT_TRUE(file.bHeader);
    EXPECT_EQ(file.strCut + file.strUnfinished, "");
    const auto threads = NumbersByThread(RecordsOf(LogPath()));
    EXPECT_EQ(threads.size(), static_cast<size_t>(kThreads));
    for (const auto& [thread, numbers] : threads) {
        ExpectConsecutive(numbers, nRecords, true);
    }
}

TEST_F(LoadTest, CutsTakeTheOldestRecordsAndNoOthers) {
    constexpr int kThreads = 8;
    const int nRecords = Scaled(20'000);
    const auto dwLimit = static_cast<DWORD>(nRecords) * 50;
    InChild([&] {
        CDebugLogMgr::GetInstance()->SetTruncate(dwLimit, 20);
        // As the writer hands them over, cuts or not. What it rewrites in a cut starts with no record's type.
        std::map<std::string, int> handedOver;
        file_calls::Watch([&](const file_calls::Call& call) {
            if (call.function == "WriteFile" && call.data.starts_with("[INFO] ") && call.data.size() < 200) {
                ++handedOver[std::string(call.data.substr(call.data.rfind("]: ") + 3))];
            }
        });
        TraceFromThreads(kThreads, nRecords);
        file_calls::WaitFor("CloseHandle", kThreads * nRecords);
        EXPECT_GE(file_calls::Count("SetEndOfFile"), 10);
        EXPECT_EQ(handedOver.size(), static_cast<size_t>(kThreads * nRecords));
        for (const auto& [strMessage, nTimes] : handedOver) {
            EXPECT_EQ(nTimes, 1) << strMessage;
        }
    });
    // The youngest that fit are there: all in a row that ends with the last record handed over.
    const LogFile file = ReadLogFile(LogPath());
    EXPECT_TRUE(file.bHeader);
    EXPECT_EQ(file.strUnfinished, "");
    EXPECT_GT(std::filesystem::file_size(LogPath()), dwLimit * 79 / 100);
    EXPECT_LE(std::filesystem::file_size(LogPath()), dwLimit);
    const auto records = ReadLogRecords(LogPath());
    EXPECT_GT(records.size(), dwLimit / 200);
    for (const auto& [thread, numbers] : NumbersByThread(records)) {
        ExpectConsecutive(numbers, nRecords, false);
    }
}

TEST_F(LoadTest, TheFileStaysWithinLimitAndOneRecord) {
    const int nRecords = Scaled(200'000);
    constexpr DWORD kLimit = 20'000;
    InChild([&] {
        CDebugLogMgr::GetInstance()->SetTruncate(kLimit, 20);
        uintmax_t cbMost = 0;
        size_t cbRecord = 0;
        file_calls::Watch([&](const file_calls::Call& call) {
            // The file grows before the second of these in a line, and is closed when all is done.
            struct stat status {};
            if ((call.function == "GetFileSizeEx" || call.function == "CloseHandle") &&
                stat(LogPath().c_str(), &status) == 0) {
                cbMost = std::max(cbMost, static_cast<uintmax_t>(status.st_size));
            }
            if (call.data.starts_with("[INFO] ") && call.data.size() < 1000) {
                cbRecord = std::max(cbRecord, call.data.size() + 4);
            }
        });
        constexpr int kBatch = 10'000;
        for (int i = 0; i < nRecords; ++i) {
            Trace(L"record " + std::to_wstring(i));
            if (i % kBatch == 0) {
                file_calls::WaitFor("CloseHandle", i);
            }
        }
        file_calls::WaitFor("CloseHandle", nRecords);
        EXPECT_GT(cbMost, kLimit);
        EXPECT_LE(cbMost, kLimit + cbRecord);
        EXPECT_LE(std::filesystem::file_size(LogPath()), kLimit);
    });
}

TEST_F(LoadTest, FourProcessesAtOnceKeepEachRecordWhole) {
    constexpr int kProcesses = 4;
    const int nRecords = Scaled(20'000);
    const std::vector<pid_t> children = TraceFromProcesses(kProcesses, nRecords, 0x200000, 0);
    const LogFile file = ReadLogFile(LogPath());
    EXPECT_TRUE(file.bHeader);
    EXPECT_EQ(file.strCut + file.strUnfinished, "");
    EXPECT_EQ(file.entries.size(), static_cast<size_t>(kProcesses * nRecords));
    const auto threads = NumbersByThread(ReadLogRecords(LogPath()));
    EXPECT_EQ(threads.size(), static_cast<size_t>(kProcesses));
    for (const auto& [thread, numbers] : threads) {
        EXPECT_NE(std::find(children.begin(), children.end(), thread.first), children.end());
        ExpectConsecutive(numbers, nRecords, true);
    }
}

// Each process cuts the file while the others write.
TEST_F(LoadTest, ProcessesThatCutTheFileOfOneAnotherLeaveWholeRecords) {
    constexpr int kProcesses = 4;
    const int nRecords = Scaled(5'000);
    TraceFromProcesses(kProcesses, nRecords, 20'000, 20);
    EXPECT_LE(std::filesystem::file_size(LogPath()), 20'000U);
    for (const auto& [thread, numbers] : NumbersByThread(ReadLogRecords(LogPath()))) {
        ExpectConsecutive(numbers, nRecords, false);
    }
}

}  // namespace
