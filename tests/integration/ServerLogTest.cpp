// The diagnostic log through the real file server. The log accesses its file only by requests.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Amount.h"
#include "FileRequests.h"
#include "FileServerProcess.h"
#include "LogTest.h"
#include "Scale.h"
#include "ScriptedPeer.h"
#include "SocketCalls.h"
#include "Threads.h"

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif

class ServerLogTest : public LogTest {
protected:
    ServerLogTest() { std::filesystem::create_directory(Root()); }

    void SetUp() override {
        if (kAddressSanitizer) {
            // The thread that reads the server's log exists before the test forks the processes that log.
            GTEST_SKIP() << "skipped: a forked child may find the sanitizer's own allocator locked";
        }
    }

    std::string Root() const { return m_directory.Path("root"); }
    // The server keeps the log of the default name here.
    std::string ServedLog() const { return Root() + "/tmp/PILog.txt"; }

    // A second start uses the same port.
    void StartServer(std::vector<std::string> options = {}) {
        options.insert(options.begin(), {"--root", Root(), "--port", std::to_string(m_uPort)});
        m_server.emplace(options);
        m_uPort = m_server->Port();
        ASSERT_NE(m_uPort, 0) << m_server->Log();
        m_clientPort.emplace(m_uPort);
    }

    void KillServer() {
        m_server->Signal(SIGKILL);
        m_server->Wait();
    }

    // Two processes in step: one waits until the other has reached a point.
    void Reach(const std::string& strPoint) const { m_directory.Write(strPoint, ""); }
    void Await(const std::string& strPoint) const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!std::filesystem::exists(m_directory.Path(strPoint)) && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_TRUE(std::filesystem::exists(m_directory.Path(strPoint))) << strPoint;
    }

    static CDebugLogMgr& UseServer(BOOL bGlobal) {
        CDebugLogMgr& manager = *CDebugLogMgr::GetInstance();
        manager.EnableServerSupport(TRUE);
        manager.EnableGlobalMode(bGlobal);
        return manager;
    }

    static std::vector<std::string> Messages(const std::string& strPath) {
        std::vector<std::string> messages;
        for (const LogRecord& record : RecordsOf(strPath)) {
            messages.push_back(record.strMessage);
        }
        return messages;
    }

    std::optional<FileServerProcess> m_server;
    std::optional<socket_calls::FileServerPort> m_clientPort;
    std::uint16_t m_uPort = 0;
};

TEST_F(ServerLogTest, OpensAppendsAndClosesByRequestsForEachRecord) {
    StartServer({"--verbose"});
    InChild([&] {
        UseServer(FALSE);
        Trace(L"one");
        Trace(L"two");
        WaitUntilWritten(ServedLog());
    });
    EXPECT_TRUE(ReadLogFile(ServedLog()).bHeader);
    EXPECT_EQ(Messages(ServedLog()), (std::vector<std::string>{"one", "two"}));
    EXPECT_FALSE(std::filesystem::exists(LogPath()));
    EXPECT_TRUE(m_server->WaitForLog("close", 2)) << m_server->Log();
    EXPECT_EQ(m_server->LinesWith("open "), 3) << m_server->Log();
}

TEST_F(ServerLogTest, InGlobalModeTheFileStaysOpenUntilTheProcessEnds) {
    StartServer({"--verbose"});
    const ChildEnd end = RunLogChild(
        [&] {
            UseServer(TRUE);
            for (int i = 0; i < 3; ++i) {
                Trace(L"text");
            }
            WaitUntilWritten(ServedLog());
        },
        Exit::kByReturn);
    EXPECT_EQ(end.nStatus, 0);
    EXPECT_EQ(RecordsOf(ServedLog()).size(), 3U);
    EXPECT_TRUE(m_server->WaitForLog("close"));
    EXPECT_EQ(m_server->LinesWith("open "), 1) << m_server->Log();
    EXPECT_EQ(m_server->LinesWith("close"), 1) << m_server->Log();
}

TEST_F(ServerLogTest, IsCutByRequests) {
    constexpr DWORD kLimit = 2'000;
    constexpr int kRecords = 60;
    StartServer();
    const ChildEnd end = RunLogChild(
        [&] {
            UseServer(TRUE).SetTruncate(kLimit, 20);
            for (int i = 0; i < kRecords; ++i) {
                Trace(L"record " + std::to_wstring(i));
            }
            WaitUntilWritten(ServedLog());
        },
        Exit::kByReturn);  // which lets the last cut finish
    EXPECT_EQ(end.nStatus, 0);
    const LogFile file = ReadLogFile(ServedLog());
    EXPECT_TRUE(file.bHeader);
    EXPECT_EQ(file.strUnfinished, "");
    EXPECT_LE(std::filesystem::file_size(ServedLog()), kLimit);
    const std::vector<std::string> messages = Messages(ServedLog());
    ASSERT_GT(messages.size(), 5U);
    for (size_t i = 0; i < messages.size(); ++i) {
        EXPECT_EQ(messages[i], "record " + std::to_string(kRecords - messages.size() + i));
    }
}

TEST_F(ServerLogTest, SwitchedOnAndOffItGoesOnInTheOtherFile) {
    StartServer();
    InChild([&] {
        CDebugLogMgr& manager = *CDebugLogMgr::GetInstance();
        manager.EnableGlobalMode(TRUE);
        Trace(L"here");
        WaitUntilWritten(LogPath());
        manager.EnableServerSupport(TRUE);
        Trace(L"there");
        WaitUntilWritten(ServedLog());
        manager.EnableServerSupport(FALSE);
        Trace(L"here again");
        WaitUntilWritten(LogPath());
    });
    EXPECT_EQ(Messages(LogPath()), (std::vector<std::string>{"here", "here again"}));
    EXPECT_EQ(Messages(ServedLog()), (std::vector<std::string>{"there"}));
}

// ---- A missing server ----

TEST_F(ServerLogTest, OnlyRecordsOfTheTimeWithoutAServerAreLost) {
    StartServer();
    KillServer();
    std::thread operatorOfServer([&] {
        Await("traced");
        StartServer();
        Reach("started");
    });
    InChild([&] {
        UseServer(TRUE);
        for (int i = 0; i < 5; ++i) {
            Trace(L"lost");
        }
        Reach("traced");
        Await("started");
        Trace(L"written");
        WaitUntilWritten(ServedLog());
    });
    operatorOfServer.join();
    const std::vector<std::string> messages = Messages(ServedLog());
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages.back(), "written");
    EXPECT_TRUE(ReadLogFile(ServedLog()).bHeader);
    EXPECT_EQ(FilesInWorkingDirectory(), std::vector<std::string>{});
}

// The server does not answer while the records are traced. It continues within the time-out.
TEST_F(ServerLogTest, AServerThatStallsDelaysNobodyAndLosesNothing) {
    constexpr int kRecords = 50;
    StartServer();
    std::thread operatorOfServer([&] {
        Await("written");
        m_server->Signal(SIGSTOP);
        Reach("stopped");
        Await("traced");
        m_server->Signal(SIGCONT);
    });
    InChild([&] {
        UseServer(TRUE);
        Trace(L"before");
        WaitUntilWritten(ServedLog());
        Reach("written");
        Await("stopped");
        for (int i = 0; i < kRecords; ++i) {
            Trace(L"more");
        }
        Reach("traced");
        WaitUntilWritten(ServedLog());
    });
    operatorOfServer.join();
    EXPECT_EQ(Messages(ServedLog()).size(), 1U + kRecords);
}

class RestartTest : public ServerLogTest, public testing::WithParamInterface<BOOL> {};

// The new server does not know the file IDs of the old one.
TEST_P(RestartTest, LosesNoRecord) {
    StartServer();
    std::thread operatorOfServer([&] {
        Await("written");
        KillServer();
        StartServer();
        Reach("restarted");
    });
    InChild([&] {
        UseServer(GetParam());
        Trace(L"before");
        WaitUntilWritten(ServedLog());
        Reach("written");
        Await("restarted");
        Trace(L"after");
        WaitUntilWritten(ServedLog());
    });
    operatorOfServer.join();
    EXPECT_EQ(Messages(ServedLog()), (std::vector<std::string>{"before", "after"}));
}

INSTANTIATE_TEST_SUITE_P(, RestartTest, testing::Values(TRUE, FALSE),
                         [](const auto& param) { return param.param ? "GlobalMode" : "FileOpenedForEachRecord"; });

// The test's own server, which ends without an answer when it has received the first record.
TEST_F(ServerLogTest, ARecordAndItsLineEndsAreOneRequest) {
    constexpr std::uint64_t kWrite = 10;
    constexpr std::uint64_t kOpen = 1;
    constexpr std::uint64_t kSize = 7;
    constexpr std::size_t kBeforeData = 40;
    std::vector<std::string> written;
    ScriptedPeer server([&](PeerConnection& connection) {
        const std::optional<PeerMessage> request = connection.AcceptRequestIfAny();
        if (!request) {
            return;
        }
        const std::uint64_t uCommand = NumberAt(request->strPayload, 0);
        if (uCommand == kOpen) {
            connection.Reply(*request, OpenedReply(1, false));
        } else if (uCommand == kSize) {
            connection.Reply(*request, SizeReply(true, 0));
        } else if (uCommand == kWrite) {
            const std::string strData = request->strPayload.substr(kBeforeData);
            written.push_back(strData.substr(strData.rfind(' ') + 1));
            if (written.size() == 1) {
                return;
            }
            Reach("written");
            connection.Reply(*request, WriteReply(true, strData.size()));
        } else {
            connection.Reply(*request, kDoneReply);
        }
    });
    m_clientPort.emplace(server.Port());
    InChild([&] {
        UseServer(TRUE);
        Trace(L"one");
        Trace(L"two");
        Await("written");
    });
    server.Finish();
    EXPECT_EQ(written, (std::vector<std::string>{"one\r\n\r\n", "two\r\n\r\n"}));
}

// The server accepts no request that is larger than the largest request of a cut.
TEST_F(ServerLogTest, ALargeLogIsCutInPieces) {
    constexpr std::size_t kSize = 17'000'000;
    constexpr std::size_t kPiece = 0x100000;
    constexpr std::size_t kBeforeData = 40;
    std::string strBefore = "\xFF\xFE";
    for (int i = 0; strBefore.size() < kSize; ++i) {
        strBefore += "old entry " + std::to_string(i) + "\r\n\r\n";
    }
    std::filesystem::create_directory(Root() + "/tmp");
    m_directory.Write("root/tmp/PILog.txt", strBefore);
    StartServer({"--max-message", std::to_string(kPiece + kBeforeData)});
    const ChildEnd end = RunLogChild(
        [&] {
            UseServer(TRUE).SetTruncate(kSize, 50);
            Trace(L"new");
            // The end of the process waits a second for the cut, which can take longer on a busy machine.
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
            while (std::filesystem::file_size(ServedLog()) >= kSize && std::chrono::steady_clock::now() < deadline) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        },
        Exit::kByReturn);
    EXPECT_EQ(end.nStatus, 0);
    const std::string strAfter = ReadWholeFile(ServedLog());
    EXPECT_LT(strAfter.size(), kSize * 6 / 10);
    EXPECT_GT(strAfter.size(), kSize * 4 / 10);
    const std::size_t nNew = strAfter.rfind("[INFO] ");
    ASSERT_NE(nNew, std::string::npos);
    ASSERT_TRUE(strAfter.starts_with("\xFF\xFE"));
    EXPECT_TRUE(strBefore.ends_with(strAfter.substr(2, nNew - 2)));
    EXPECT_TRUE(strAfter.ends_with("]: new\r\n"));
}

// The file cannot exist, because its parent is a file.
TEST_F(ServerLogTest, RecordsAreLostUntilTheLogHasAnotherName) {
    StartServer();
    m_directory.Write("root/file", "");
    InChild([&] {
        UseServer(TRUE).SetLogFileName(L"/file/log.txt");
        Trace(L"lost");
        EXPECT_TRUE(m_server->WaitForLog("", 1));
        CDebugLogMgr::GetInstance()->SetLogFileName(L"/other/log.txt");
        WaitUntilWritten(Root() + "/other/log.txt");
    });
}

TEST_F(ServerLogTest, AForkedChildOpensTheFileForItself) {
    StartServer({"--verbose"});
    InChild([&] {
        UseServer(TRUE);
        Trace(L"parent");
        WaitUntilWritten(ServedLog());
        const pid_t nChild = fork();
        ASSERT_GE(nChild, 0);
        if (nChild == 0) {
            alarm(60);
            Trace(L"child");
            WaitUntilWritten(ServedLog());
            _exit(0);
        }
        int nStatus = -1;
        ASSERT_EQ(waitpid(nChild, &nStatus, 0), nChild);
        EXPECT_EQ(nStatus, 0);
        Trace(L"parent again");
        WaitUntilWritten(ServedLog());
    });
    EXPECT_EQ(Messages(ServedLog()), (std::vector<std::string>{"parent", "child", "parent again"}));
    EXPECT_EQ(m_server->LinesWith("open "), 2) << m_server->Log();
}

// ---- Many processes ----

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
