// Several processes log through one file server.
#include <unistd.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Scale.h"
#include "ServerLogFixture.h"
#include "Threads.h"

namespace {

// A record of the load: the message is "<process thread number>".
struct Numbered {
    int nProcess;
    int nThread;
    int nRecord;
};

// The record numbers of each process and thread, in the order of the file.
std::map<std::pair<int, int>, std::vector<int>> NumbersIn(const std::string& bytes) {
    std::map<std::pair<int, int>, std::vector<int>> numbers;
    for (size_t nAt = 0; (nAt = bytes.find("]: <", nAt)) != std::string::npos; ++nAt) {
        Numbered record = {};
        char chEnd = 0;
        // sscanf measures its whole input, so give it a short one.
        const std::string strRecord = bytes.substr(nAt, 40);
        EXPECT_EQ(std::sscanf(strRecord.c_str(), "]: <%d %d %d%c", &record.nProcess, &record.nThread, &record.nRecord,
                              &chEnd),
                  4);
        EXPECT_EQ(chEnd, '>');
        numbers[{record.nProcess, record.nThread}].push_back(record.nRecord);
    }
    return numbers;
}

// Each exchange runs a shell, so a record takes about ten milliseconds. The default is therefore small. The environment
// variable VEX_TEST_SERVER_RECORDS sets another number.
int RecordsOfEachThread() {
    return static_cast<int>(AmountOf("VEX_TEST_SERVER_RECORDS", std::max(Scaled(40), 10)));
}

class TwoProcessesTest : public ServerLogTest, public testing::WithParamInterface<BOOL> {};

TEST_P(TwoProcessesTest, DoNotTearEachOthersRecords) {
    constexpr int kProcesses = 2;
    const int nRecords = RecordsOfEachThread();
    StartServer();
    m_directory.Write("root/there", "");
    std::vector<pid_t> children;
    for (int nProcess = 0; nProcess < kProcesses; ++nProcess) {
        const pid_t nChild = fork();
        ASSERT_GE(nChild, 0);
        if (nChild == 0) {
            alarm(300);
            UseServer(GetParam()).SetLogFileName(L"/there");
            for (int i = 0; i < nRecords; ++i) {
                Trace(L"<" + std::to_wstring(nProcess) + L" 0 " + std::to_wstring(i) + L">");
            }
            const std::string strLast = "<" + std::to_string(nProcess) + " 0 " + std::to_string(nRecords - 1) + ">";
            while (ReadWholeFile(Root() + "/there").find(strLast) == std::string::npos) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            EndChildAtOnce();
        }
        children.push_back(nChild);
    }
    ExpectSuccess(children);
    const LogFile file = ReadLogFile(Root() + "/there");
    EXPECT_EQ(file.strUnfinished, "");
    EXPECT_EQ(file.entries.size(), static_cast<std::size_t>(kProcesses * nRecords));
    for (const std::string& strEntry : file.entries) {
        EXPECT_TRUE(ParseLogRecord(strEntry)) << strEntry;
        EXPECT_EQ(strEntry.find("[INFO] ", 1), std::string::npos) << strEntry;
    }
}

INSTANTIATE_TEST_SUITE_P(, TwoProcessesTest, testing::Values(TRUE, FALSE),
                         [](const auto& param) { return param.param ? "GlobalMode" : "FileOpenedForEachRecord"; });

TEST_F(ServerLogTest, FourProcessesAndAServerThatIsKilledInTheMiddle) {
    constexpr int kProcesses = 4;
    constexpr int kThreads = 8;
    const int nRecords = RecordsOfEachThread();
    // Each check reads the whole file, so a long run pauses longer between checks.
    const std::chrono::milliseconds pause(20 + nRecords / 4);
    StartServer();
    std::vector<pid_t> children;
    for (int nProcess = 0; nProcess < kProcesses; ++nProcess) {
        const pid_t nChild = fork();
        ASSERT_GE(nChild, 0);
        if (nChild == 0) {
            UseServer(TRUE).SetTruncate(0x200000, 0);
            OnThreads(kThreads, [=](int nThread) {
                for (int i = 0; i < nRecords; ++i) {
                    Trace(L"<" + std::to_wstring(nProcess) + L" " + std::to_wstring(nThread) + L" " +
                          std::to_wstring(i) + L">");
                }
            });
            // When this record is in the file, all records before it are, too.
            Trace(L"<" + std::to_wstring(nProcess) + L" " + std::to_wstring(kThreads) + L" 0>");
            const std::string strLast = "<" + std::to_string(nProcess) + " " + std::to_string(kThreads) + " 0>";
            while (ReadWholeFile(ServedLog()).find(strLast) == std::string::npos) {
                std::this_thread::sleep_for(pause);
            }
            EndChildAtOnce();
        }
        children.push_back(nChild);
    }

    // Kill the server when about half of the records are there, while the writers are busy.
    const auto recordsThere = [&] {
        size_t nThere = 0;
        for (const auto& [thread, numbers] : NumbersIn(ReadWholeFile(ServedLog()))) {
            nThere += numbers.size();
        }
        return nThere;
    };
    while (recordsThere() < static_cast<size_t>(kProcesses * kThreads * nRecords / 2)) {
        std::this_thread::sleep_for(pause);
    }
    KillServer();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // records are lost while there is no server
    StartServer();

    ExpectSuccess(children);
    const auto threads = NumbersIn(ReadWholeFile(ServedLog()));
    for (int nProcess = 0; nProcess < kProcesses; ++nProcess) {
        EXPECT_TRUE(threads.contains({nProcess, kThreads})) << "the last record of process " << nProcess;
    }
    size_t nThere = 0;
    for (const auto& [thread, numbers] : threads) {
        // Each record is there once and in order, with at most one gap: the time without a server.
        int nGaps = numbers.front() == 0 ? 0 : 1;
        for (size_t i = 1; i < numbers.size(); ++i) {
            ASSERT_GT(numbers[i], numbers[i - 1]) << "process " << thread.first << ", thread " << thread.second;
            nGaps += numbers[i] == numbers[i - 1] + 1 ? 0 : 1;
        }
        if (thread.second < kThreads) {
            nGaps += numbers.back() == nRecords - 1 ? 0 : 1;
        }
        EXPECT_LE(nGaps, 1) << "process " << thread.first << ", thread " << thread.second;
        nThere += numbers.size();
    }
    const size_t nAll = kProcesses * (kThreads * static_cast<size_t>(nRecords) + 1);
    std::printf("%zu of %zu records are there\n", nThere, nAll);
    EXPECT_GT(nThere, nAll / 2);
    // The header is there once. It is not always first: another process may write between creation and header.
    const std::string bytes = ReadWholeFile(ServedLog());
    EXPECT_NE(bytes.find("\xFF\xFE"), std::string::npos);
    EXPECT_EQ(bytes.find("\xFF\xFE"), bytes.rfind("\xFF\xFE"));
}

}  // namespace
