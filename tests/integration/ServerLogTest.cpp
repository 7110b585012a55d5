// The diagnostic log through the real file server. The log accesses its file only by requests.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "FileRequests.h"
#include "ScriptedPeer.h"
#include "ServerLogFixture.h"

namespace {

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

}  // namespace
