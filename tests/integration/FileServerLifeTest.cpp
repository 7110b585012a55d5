// How the file server starts and ends.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <string_view>
#include <thread>
#include <vector>

#include "posix/FileDescriptor.h"

#include "FileServerFixture.h"
#include "TestStore.h"

namespace {

class FileServerLife : public FileServerFixture {
protected:
    // Runs the program until it ends by itself.
    ServerEnd Run(const std::vector<std::string>& arguments) {
        m_server = std::make_unique<FileServerProcess>(arguments);
        return m_server->Wait();
    }

    // Asks for more bytes than the sockets' buffers hold, and receives only the reply's header.
    void BeginLargeReply(FileServerClient& client) {
        const std::uint64_t uId = Open("log");
        EXPECT_EQ(Ask(SeekToRequest(uId, kLarge)), kDoneReply);
        EXPECT_EQ(Ask(EndOfFileRequest(uId)), kDoneReply);
        EXPECT_EQ(Ask(SeekToBeginRequest(uId)), kDoneReply);
        ASSERT_EQ(client.Register(), 0);
        client.Send(client.Message(ReadRequest(uId, kLarge)));
        ASSERT_EQ(client.Receive(34).size(), 34U);
    }

    // Sends large write requests one after the other until the server ends.
    void KeepBusy() const {
        try {
            FileServerClient client(m_uPort);
            EXPECT_EQ(client.Register(), 0);
            const std::uint64_t uId = Open("busy");
            const std::string strWrite = client.Message(WriteRequest(uId, std::string(15 * 1024 * 1024, 'x')));
            const std::string strSeek = client.Message(SeekToBeginRequest(uId));
            for (;;) {
                client.Send(strSeek + strWrite);
                if (client.Receive(34 + 8 + 34 + 12).empty()) {
                    return;
                }
            }
        } catch (const std::system_error&) {  // the server has ended
        }
    }

    static constexpr std::size_t kLarge = 60 * 1024 * 1024;
};

// In the kernel's table of sockets, addresses and ports are hexadecimal. State 0A is listening.
TEST_F(FileServerLife, ListensOnlyOnTheLoopbackAddress) {
    Start();
    std::ostringstream port;
    port << std::hex << std::uppercase << std::setw(4) << std::setfill('0') << m_uPort;
    std::vector<std::string> listening;
    for (const char* pszTable : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        std::ifstream table(pszTable);
        std::string strNumber;
        std::string strLocal;
        std::string strRemote;
        std::string strState;
        for (std::string strLine; std::getline(table, strLine);) {
            std::istringstream(strLine) >> strNumber >> strLocal >> strRemote >> strState;
            if (strState == "0A" && strLocal.ends_with(':' + port.str())) {
                listening.push_back(strLocal);
            }
        }
    }
    EXPECT_EQ(listening, std::vector<std::string>{"0100007F:" + port.str()});
}

TEST_F(FileServerLife, EndsOnSignals) {
    for (const auto& [nSignal, pszName] : {std::pair{SIGTERM, "SIGTERM"}, {SIGINT, "SIGINT"}}) {
        Start();
        FileServerClient idle(m_uPort);
        ASSERT_EQ(idle.Register(), 0);
        FileServerClient half(m_uPort);
        ASSERT_EQ(half.Register(), 0);
        half.Send(half.Message("half").substr(0, 36));
        m_server->Signal(nSignal);
        EXPECT_EQ(m_server->Wait().nStatus, 0);
        EXPECT_TRUE(idle.IsClosedByServer());
        EXPECT_TRUE(half.IsClosedByServer());
        EXPECT_TRUE(m_server->WaitForLog(std::string("stopping on ") + pszName));
        EXPECT_TRUE(m_server->WaitForLog("stopped\n"));
    }
}

TEST_F(FileServerLife, LooksUpItsUsersAgainOnSighup) {
    Start({"--allow-user", "root"});
    const std::uint64_t uId = Open("log");
    for (int i = 1; i <= 2; ++i) {
        m_server->Signal(SIGHUP);
        EXPECT_TRUE(m_server->WaitForLog("user root (0)", i + 1));
        EXPECT_TRUE(m_server->WaitForLog("totals: ", i));
        EXPECT_EQ(Ask(WriteRequest(uId, "text")), WriteReply(true, 4));
    }
    m_server->Signal(SIGTERM);
    EXPECT_EQ(m_server->Wait().nStatus, 0);
}

// The server checks its files once a second. The signal comes at about the time of the first check, while requests take
// long enough for both to be due at once. About half of the runs of this test meet that case.
TEST_F(FileServerLife, EndsOnASignalDuringItsHousekeeping) {
    constexpr int kServers = 6;
    for (int i = 0; i < kServers; ++i) {
        Start();
        const auto start = std::chrono::steady_clock::now();
        std::vector<std::thread> clients;
        for (int nClient = 0; nClient < 4; ++nClient) {
            clients.emplace_back([this] { KeepBusy(); });
        }
        std::this_thread::sleep_until(start + std::chrono::milliseconds(960 + 7 * i));
        m_server->Signal(SIGTERM);
        EXPECT_EQ(m_server->Wait().nStatus, 0);
        for (std::thread& client : clients) {
            client.join();
        }
    }
}

// A full pipe does not delay the server. It reports the number of lost lines when there is room again.
TEST_F(FileServerLife, ServesWhileNobodyReadsItsLog) {
    const std::string strPipe = m_directory.Path("pipe");
    ASSERT_EQ(mkfifo(strPipe.c_str(), 0600), 0);
    const vexposix::FileDescriptor pipe(open(strPipe.c_str(), O_RDWR | O_CLOEXEC));
    FileServerProcess server({"--root", Root(), "--port", "0", "--verbose"}, "-n 256 && exec 2>'" + strPipe + "'");
    std::string strLog;
    const auto readUntil = [&](const std::string& strText) {
        char buffer[4096];
        while (strLog.find(strText) == std::string::npos) {
            const ssize_t cb = read(pipe.Get(), buffer, sizeof buffer);
            ASSERT_GT(cb, 0);
            strLog.append(buffer, static_cast<std::size_t>(cb));
        }
    };
    const std::string strBefore = "listening on 127.0.0.1:";
    readUntil(", files below");
    m_uPort = static_cast<std::uint16_t>(std::stoi(strLog.substr(strLog.find(strBefore) + strBefore.size())));
    FileServerClient client(m_uPort);
    ASSERT_EQ(client.Register(), 0);
    const std::string strRequest = client.Message(SizeRequest(Open("log")));
    constexpr int kRequests = 3000;  // each logs about 50 bytes; a pipe holds 65,536
    for (int i = 0; i < kRequests; ++i) {
        client.Send(strRequest);
        ASSERT_EQ(client.Receive(34 + 16).size(), 50U);
    }
    readUntil(" lines lost: the log could not be written");
    server.Signal(SIGTERM);
    EXPECT_EQ(server.Wait().nStatus, 0);
}

TEST_F(FileServerLife, FinishesAReplyBeforeItEnds) {
    Start({"--max-message", "67108864"});
    FileServerClient client(m_uPort);
    BeginLargeReply(client);
    m_server->Signal(SIGTERM);
    ASSERT_TRUE(m_server->WaitForLog("stopping"));
    EXPECT_THROW(FileServerClient another(m_uPort), std::system_error);
    EXPECT_EQ(client.Receive(12 + kLarge).size(), 12 + kLarge);
    EXPECT_EQ(m_server->Wait().nStatus, 0);
}

TEST_F(FileServerLife, ASecondSignalEndsItAtOnce) {
    Start({"--max-message", "67108864"});
    FileServerClient client(m_uPort);
    BeginLargeReply(client);
    m_server->Signal(SIGTERM);
    ASSERT_TRUE(m_server->WaitForLog("stopping"));
    m_server->Signal(SIGTERM);
    EXPECT_EQ(m_server->Wait().nStatus, 0);
    EXPECT_LT(client.Receive(12 + kLarge).size(), 12 + kLarge);
}

TEST_F(FileServerLife, EndsAlthoughAClientDoesNotReceiveItsReply) {
    Start({"--max-message", "67108864"});
    FileServerClient client(m_uPort);
    BeginLargeReply(client);
    m_server->Signal(SIGTERM);
    EXPECT_EQ(m_server->Wait().nStatus, 0);
}

TEST_F(FileServerLife, ANewServerKnowsNoIdsOfTheOldOne) {
    Start();
    const std::uint64_t uId = Open("log");
    EXPECT_EQ(Ask(WriteRequest(uId, "before")), WriteReply(true, 6));
    m_server->Signal(SIGKILL);
    EXPECT_EQ(m_server->Wait().nSignal, SIGKILL);

    // On the same port, at once.
    m_server = std::make_unique<FileServerProcess>(
        std::vector<std::string>{"--root", Root(), "--port", std::to_string(m_uPort)});
    ASSERT_EQ(m_server->Port(), m_uPort) << m_server->Log();
    EXPECT_EQ(Ask(SizeRequest(uId)), SizeReply(false, 0));
    EXPECT_EQ(Ask(WriteRequest(uId, "lost")), WriteReply(false, 0));
    const std::uint64_t uNewId = Open("log");
    EXPECT_EQ(Ask(SizeRequest(uNewId)), SizeReply(true, 6));
}

TEST_F(FileServerLife, RefusesAPortInUse) {
    Start();
    FileServerProcess second({"--root", Root(), "--port", std::to_string(m_uPort)});
    EXPECT_EQ(second.Wait().nStatus, 1);
    const std::string strPort = std::to_string(m_uPort);
    EXPECT_TRUE(second.WaitForLog(
        "cannot serve: port " + strPort + " of 127.0.0.1: Address already in use by process " +
        std::to_string(m_server->Process()) + " (\"vexfiled\") of user " + std::to_string(geteuid()) +
        "; end it (as root, \"ss -ltnp sport = :" + strPort + "\" shows it) or choose another --port"))
        << second.Log();
    EXPECT_NE(Open("log"), 0U);
}

TEST_F(FileServerLife, CountsWhatItHasDone) {
    Start({"--totals-seconds", "1", "--max-connections", "1"});
    EXPECT_TRUE(m_server->WaitForLog("totals: 0 clients, 0 requests (0 failed), 0 bytes received, 0 bytes sent, "));
    {
        FileServerClient client(m_uPort);
        ASSERT_EQ(client.Register(), 0);
        const std::uint64_t uId = NumberAt(client.Exchange(OpenRequest("log")), 0);   // 24 + 8 + 3, 24 bytes
        EXPECT_EQ(client.Exchange(WriteRequest(uId, "hello")), WriteReply(true, 5));  // 24 + 16 + 5, 12 bytes
        EXPECT_EQ(client.Exchange(SizeRequest(uId + 1)), SizeReply(false, 0));        // 24 + 8, 16 bytes
        EXPECT_EQ(FileServerClient(m_uPort).Register(), 1);
    }
    const std::string strTotals =
        "totals: 1 clients, 3 requests (1 failed), 214 bytes received, 154 bytes sent, 1 clients refused (0 for their "
        "user, 1 for too many connections)";
    EXPECT_TRUE(m_server->WaitForLog(strTotals)) << m_server->Log();
    m_server->Signal(SIGTERM);
    EXPECT_EQ(m_server->Wait().nStatus, 0);
    // The last two lines.
    const std::string strLog = m_server->Log();
    EXPECT_LT(strLog.rfind(strTotals), strLog.rfind("stopped\n")) << strLog;
    EXPECT_LT(strLog.rfind("stopping on SIGTERM\n"), strLog.rfind(strTotals)) << strLog;
}

TEST_F(FileServerLife, RefusesAMissingRoot) {
    EXPECT_EQ(Run({"--root", Root() + "/missing", "--port", "0"}).nStatus, 1);
    EXPECT_TRUE(m_server->WaitForLog("cannot serve: " + Root() + "/missing: No such file or directory; make it: "));
}

TEST_F(FileServerLife, ProposesACommandThatMakesAnyRoot) {
    for (const char* pszName : {"plain", "two words", "it's $HOME", "a\nb\x1B[2J"}) {
        const std::string strRoot = Root() + "/" + pszName;
        EXPECT_EQ(Run({"--root", strRoot, "--port", "0"}).nStatus, 1);
        ASSERT_TRUE(m_server->WaitForLog("; make it: "));
        const std::string strLog = m_server->Log();
        EXPECT_EQ(strLog.find('\x1B'), std::string::npos) << strLog;
        const std::size_t nCommand = strLog.find("; make it: ") + std::string_view("; make it: ").size();
        RequireCommand(strLog.substr(nCommand, strLog.find('\n', nCommand) - nCommand));
        EXPECT_TRUE(std::filesystem::is_directory(strRoot)) << strLog;
        FileServerProcess server({"--root", strRoot, "--port", "0"});
        EXPECT_TRUE(server.WaitForLog("files below ")) << server.Log();
        EXPECT_EQ(server.Log().find('\x1B'), std::string::npos) << server.Log();
    }
}

TEST_F(FileServerLife, RefusesAWrongCommandLine) {
    EXPECT_EQ(Run({"--port", "0"}).nStatus, 2);
    EXPECT_TRUE(m_server->WaitForLog("--root is required"));
    EXPECT_EQ(Run({"--root", Root(), "--nonsense"}).nStatus, 2);
}

TEST_F(FileServerLife, PrintsHelpAndVersion) {
    EXPECT_EQ(Run({"--help"}).nStatus, 0);
    EXPECT_EQ(Run({"--version"}).nStatus, 0);
}

TEST_F(FileServerLife, WarnsOfRootAndOfAnotherOwnersDirectory) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "skipped: only root can change a directory's owner";
    }
    Start();
    EXPECT_TRUE(m_server->WaitForLog("runs as root without need"));
    EXPECT_EQ(m_server->LinesWith("belongs to user"), 0);
    ASSERT_EQ(chown(Root().c_str(), 4711, static_cast<gid_t>(-1)), 0);
    Start();
    EXPECT_TRUE(m_server->WaitForLog(Root() + " belongs to user 4711"));
}

TEST_F(FileServerLife, WarnsOfADirectoryThatOthersMayWriteTo) {
    std::filesystem::permissions(Root(), std::filesystem::perms{0777});
    Start();
    EXPECT_TRUE(m_server->WaitForLog("other users may write to " + Root()));
}

TEST_F(FileServerLife, LogsItsOperationsWhenVerbose) {
    Start({"--verbose"});
    const std::uint64_t uId = Open("log");
    EXPECT_EQ(Ask(WriteRequest(uId, "hello")), WriteReply(true, 5));
    EXPECT_TRUE(m_server->WaitForLog("client 1: connected"));
    EXPECT_TRUE(m_server->WaitForLog("client 1: open \"log\""));
    EXPECT_TRUE(m_server->WaitForLog("client 2: write 5 bytes of 5 to \"log\""));
    // A reader of the log could use an ID like a password.
    EXPECT_EQ(m_server->Log().find(std::to_string(uId)), std::string::npos);
}

}  // namespace
