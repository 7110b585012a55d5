// Many records from many threads and processes: each is written whole, once, and in its thread's order.
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
        std::vector<std::jthread> threads;
        for (int nThread = 0; nThread < nThreads; ++nThread) {
            threads.emplace_back([=] {
                for (int nRecord = 0; nRecord < nRecords; ++nRecord) {
                    Place()(L"thread %d record %d", nThread, nRecord);
                }
            });
        }
    }

    // The same from processes with one thread each. Returns their numbers.
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

    // For each process and thread, the numbers of its records in the order of the file.
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

    // The numbers are consecutive and end with nRecords - 1. They begin with 0, or anywhere after cuts.
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

TEST_F(LoadTest, CutsRemoveOnlyTheOldestRecords) {
    constexpr int kThreads = 8;
    const int nRecords = Scaled(20'000);
    const auto dwLimit = static_cast<DWORD>(nRecords) * 50;
    InChild([&] {
        CDebugLogMgr::GetInstance()->SetTruncate(dwLimit, 20);
        // Counts how often the writer writes each record. What a cut writes again does not begin with a type.
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
    // The file has the newest records that fit, up to the last one and without gaps.
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

TEST_F(LoadTest, TheFileExceedsTheLimitByAtMostOneRecord) {
    const int nRecords = Scaled(200'000);
    constexpr DWORD kLimit = 20'000;
    InChild([&] {
        CDebugLogMgr::GetInstance()->SetTruncate(kLimit, 20);
        uintmax_t cbMost = 0;
        size_t cbRecord = 0;
        file_calls::Watch([&](const file_calls::Call& call) {
            // The file has grown before the second size query of a record. It is closed when the record is complete.
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

TEST_F(LoadTest, FourProcessesKeepEachOthersRecordsWhole) {
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

TEST_F(LoadTest, ProcessesThatCutASharedFileLeaveWholeRecords) {
    constexpr int kProcesses = 4;
    const int nRecords = Scaled(5'000);
    TraceFromProcesses(kProcesses, nRecords, 20'000, 20);
    EXPECT_LE(std::filesystem::file_size(LogPath()), 20'000U);
    for (const auto& [thread, numbers] : NumbersByThread(ReadLogRecords(LogPath()))) {
        ExpectConsecutive(numbers, nRecords, false);
    }
}

}  // namespace
