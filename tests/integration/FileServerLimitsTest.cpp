// Too many clients, slow clients, and clients that disappear: none of them affects the others.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <fstream>
#include <sstream>

#include "FileServerFixture.h"
#include "VEXCompat.h"

namespace {

using FileServerLimits = FileServerFixture;

TEST_F(FileServerLimits, SurvivesClientsThatEndInTheMiddle) {
    Start({"--allow-any"});  // otherwise a client that has ended at once is refused
    const std::uint64_t uId = Open("log");
    const std::string strBefore(5, 'r');
    const std::string strMessage = FileServerClient(m_uPort).Message(WriteRequest(uId, "never whole"));
    for (const bool bReset : {false, true}) {
        for (const std::size_t cb : {std::size_t{0}, std::size_t{3}, std::size_t{5}, std::size_t{6}, std::size_t{38},
                                     std::size_t{39}, std::size_t{40}, 5 + strMessage.size() - 1}) {
            FileServerClient client(m_uPort);
            client.Send((strBefore + strMessage).substr(0, cb));
            if (bReset) {
                client.Reset();
            }
        }
    }
    EXPECT_EQ(Ask(SizeRequest(uId)), SizeReply(true, 0));
    EXPECT_TRUE(m_server->WaitForLog("dropped: disconnected before its registration"));
    EXPECT_TRUE(m_server->WaitForLog("dropped: disconnected in the middle of a message"));
}

TEST_F(FileServerLimits, SurvivesClientsThatDoNotWaitForTheirReply) {
    Start();
    const std::uint64_t uId = Open("log");
    EXPECT_EQ(Ask(SeekToRequest(uId, 8 * 1024 * 1024)), kDoneReply);
    EXPECT_EQ(Ask(EndOfFileRequest(uId)), kDoneReply);
    for (const bool bReset : {false, true}) {
        EXPECT_EQ(Ask(SeekToBeginRequest(uId)), kDoneReply);
        FileServerClient client(m_uPort);
        ASSERT_EQ(client.Register(), 0);
        client.Send(client.Message(ReadRequest(uId, 8 * 1024 * 1024)));
        EXPECT_EQ(client.Receive(1).size(), 1U);  // the reply has begun to arrive
        if (bReset) {
            client.Reset();
        }
    }
    EXPECT_EQ(Ask(SizeRequest(uId)), SizeReply(true, 8 * 1024 * 1024));
}

TEST_F(FileServerLimits, DropsASilentClient) {
    Start({"--client-timeout-seconds", "2"});
    FileServerClient silent(m_uPort);
    FileServerClient idle(m_uPort);
    ASSERT_EQ(idle.Register(), 0);
    FileServerClient halfHeader(m_uPort);
    ASSERT_EQ(halfHeader.Register(), 0);
    halfHeader.Send(std::string(20, 'h'));
    FileServerClient halfMessage(m_uPort);
    ASSERT_EQ(halfMessage.Register(), 0);
    halfMessage.Send(halfMessage.Message(std::string(100, 'm')).substr(0, 80));
    EXPECT_TRUE(silent.IsClosedByServer());
    EXPECT_TRUE(idle.IsClosedByServer());
    EXPECT_TRUE(halfHeader.IsClosedByServer());
    EXPECT_TRUE(halfMessage.IsClosedByServer());
    EXPECT_TRUE(m_server->WaitForLog("dropped: no registration arrived in time"));
    EXPECT_TRUE(m_server->WaitForLog("dropped: no request arrived in time"));
    EXPECT_TRUE(m_server->WaitForLog("dropped: the rest of a message did not arrive in time", 2));
}

TEST_F(FileServerLimits, DropsAClientThatDoesNotReceiveItsReply) {
    Start({"--client-timeout-seconds", "2", "--max-message", "67108864"});
    const std::uint64_t uId = Open("log");
    constexpr std::uint64_t kMoreThanSocketsHold = 60 * 1024 * 1024;
    EXPECT_EQ(Ask(SeekToRequest(uId, kMoreThanSocketsHold)), kDoneReply);
    EXPECT_EQ(Ask(EndOfFileRequest(uId)), kDoneReply);
    EXPECT_EQ(Ask(SeekToBeginRequest(uId)), kDoneReply);
    FileServerClient client(m_uPort);
    ASSERT_EQ(client.Register(), 0);
    client.Send(client.Message(ReadRequest(uId, kMoreThanSocketsHold)));
    EXPECT_TRUE(m_server->WaitForLog("dropped: the client did not read its reply in time"));
    EXPECT_LT(client.Receive(34 + 12 + kMoreThanSocketsHold).size(), kMoreThanSocketsHold);
}

TEST_F(FileServerLimits, ServesItsFirstClientsInAFloodOfConnections) {
    constexpr std::size_t kServed = 8;
    Start({"--max-connections", std::to_string(kServed)});
    std::vector<FileServerClient> clients;
    for (int i = 0; i < 200; ++i) {
        clients.emplace_back(m_uPort);
    }
    std::vector<int> statuses;
    for (FileServerClient& client : clients) {
        statuses.push_back(client.Register());
    }
    // The first clients are still served.
    EXPECT_TRUE(std::all_of(statuses.begin(), statuses.begin() + kServed, [](int n) { return n == 0; }));
    EXPECT_TRUE(std::none_of(statuses.begin() + kServed, statuses.end(), [](int n) { return n == 0; }));
    EXPECT_GE(std::count(statuses.begin(), statuses.end(), 1), 64);
    for (std::size_t i = 0; i < kServed; ++i) {
        EXPECT_EQ(clients[i].Exchange(OpenRequest("log")).size(), 24U);
    }
    EXPECT_TRUE(m_server->WaitForLog("client 9 refused: too many connections (8); raise --max-connections"));
    EXPECT_TRUE(m_server->WaitForLog("all 8 connections are in use: 8 by process " + std::to_string(getpid()) + " ("));
    EXPECT_TRUE(
        m_server->WaitForLog(" (as root, \"ss -tnp dport = :" + std::to_string(m_uPort) + "\" shows the processes)\n"));
    EXPECT_TRUE(m_server->WaitForLog("more lines about clients left out"));
    EXPECT_EQ(m_server->LinesWith("connections are in use"), 1);

    // When one of them leaves and the server has noticed it, the server accepts another client.
    clients[0].Reset();
    int nStatus = 1;
    for (int i = 0; i < 10000 && nStatus != 0; ++i) {
        nStatus = FileServerClient(m_uPort).Register();
    }
    EXPECT_EQ(nStatus, 0);
}

TEST_F(FileServerLimits, AllocatesNoMemoryForBytesThatAreOnlyAnnounced) {
    Start({"--max-message", "1073741824"});
    std::vector<FileServerClient> clients;
    for (int i = 0; i < 30; ++i) {
        FileServerClient& client = clients.emplace_back(m_uPort);
        ASSERT_EQ(client.Register(), 0);
        client.Send(MessageHeader(m_uPort, 1073741824).Bytes() + "some");
    }
    EXPECT_NE(Open("log"), 0U);
    std::ifstream status("/proc/" + std::to_string(m_server->Process()) + "/status");
    std::string strField;
    long nPeakKiB = 0;
    while (status >> strField) {
        if (strField == "VmHWM:") {
            status >> nPeakKiB;
        }
    }
    EXPECT_GT(nPeakKiB, 0);
    EXPECT_LT(nPeakKiB, 500000);  // includes a sanitizer's memory
}

TEST_F(FileServerLimits, DropsAClientWhoseRequestNeedsMoreMemoryThanThereIs) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "skipped: the sanitizer needs more address space than the limit";
#endif
    constexpr std::uint64_t kLarge = 1024 * 1024 * 1024;
    Start({"--max-message", std::to_string(kLarge)}, "-v 300000");
    const std::uint64_t uId = Open("log");
    EXPECT_EQ(Ask(SeekToRequest(uId, kLarge)), kDoneReply);
    EXPECT_EQ(Ask(EndOfFileRequest(uId)), kDoneReply);
    EXPECT_EQ(Ask(SeekToRequest(uId, 0)), kDoneReply);
    FileServerClient client(m_uPort);
    ASSERT_EQ(client.Register(), 0);
    client.Send(client.Message(ReadRequest(uId, kLarge)));
    EXPECT_TRUE(client.IsClosedByServer());
    EXPECT_TRUE(m_server->WaitForLog("dropped: out of memory"));
    EXPECT_EQ(Ask(WriteRequest(uId, "abc")), WriteReply(true, 3));
}

// Whether a client is served soon; the one before may still have the only connection.
bool IsServedSoon(std::uint16_t uPort) {
    for (int i = 0; i < 300; ++i) {
        if (FileServerClient(uPort).Register() == 0) {
            return true;
        }
        usleep(10'000);
    }
    return false;
}

// Without memory for its own work the server may end, but it must not keep the connection.
TEST_F(FileServerLimits, AClientThatMemoryIsMissingForTakesNoConnection) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "skipped: the sanitizer has its own malloc";
#endif
    int cServed = 0;
    for (int nAllocation = 1; nAllocation <= 12; ++nAllocation) {
        Start({"--max-connections", "1", "--allow-any"}, "-c 0; export LD_PRELOAD=" VEX_MEMORY_FAILS_AFTER_ACCEPT
                                                         " VEX_TEST_FAILING_ALLOCATION=" +
                                                             std::to_string(nAllocation));
        try {
            FileServerClient(m_uPort).Send(Number(0, 5));
            const bool bServed = IsServedSoon(m_uPort);
            EXPECT_TRUE(bServed) << "after allocation " << nAllocation << " failed:\n" << m_server->Log();
            cServed += bServed ? 1 : 0;
        } catch (const std::exception&) {  // nobody listens
            EXPECT_EQ(m_server->Wait().nStatus, 1) << m_server->Log();
            EXPECT_TRUE(m_server->WaitForLog("ends after an error: out of memory")) << m_server->Log();
        }
    }
    EXPECT_GT(cServed, 0);
}

TEST_F(FileServerLimits, RefusesFilesAboveTheLimit) {
    Start({"--max-files", "2"});
    const std::uint64_t uFirst = Open("a");
    EXPECT_NE(Open("b"), 0U);
    EXPECT_EQ(Ask(OpenRequest("c")), NotOpenedReply(ERROR_TOO_MANY_OPEN_FILES));
    EXPECT_FALSE(std::filesystem::exists(Root() + "/c"));
    EXPECT_EQ(Ask(CloseRequest(uFirst)), kDoneReply);
    EXPECT_NE(Open("c"), 0U);
}

TEST_F(FileServerLimits, ClosesAnUnusedFile) {
    Start({"--idle-seconds", "1", "--max-files", "1", "--verbose"});
    const std::uint64_t uId = Open("log");
    EXPECT_TRUE(m_server->WaitForLog("unused files closed: 1"));
    EXPECT_EQ(Ask(WriteRequest(uId, "late")), WriteReply(false, 0));
    EXPECT_EQ(Content("log"), "");
    EXPECT_NE(Open("log"), 0U);
}

// Descriptors run out in accept. The server waits and does not call accept without a pause.
TEST_F(FileServerLimits, WithoutDescriptorsItWaits) {
    Start({"--max-connections", "100"}, "-n 30");
    EXPECT_TRUE(m_server->WaitForLog("only 30 descriptors"));
    std::vector<FileServerClient> clients;
    for (int i = 0; i < 50; ++i) {
        clients.emplace_back(m_uPort).Send(Number(0, 5));
    }
    const std::string strTry = "cannot accept a connection, trying again: ";
    ASSERT_TRUE(m_server->WaitForLog(strTry));
    const auto before = std::chrono::steady_clock::now();
    ASSERT_TRUE(m_server->WaitForLog(strTry, m_server->LinesWith(strTry) + 5));  // 200 ms each
    EXPECT_GT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(700));

    // The connected clients are served, but cannot open files. The others are served when descriptors are free.
    ASSERT_EQ(clients[0].Receive(1), std::string(1, '\0'));
    EXPECT_EQ(clients[0].Exchange(OpenRequest("log")), NotOpenedReply(ERROR_TOO_MANY_OPEN_FILES));
    FileServerClient last = std::move(clients.back());
    clients.clear();
    EXPECT_EQ(last.Receive(1), std::string(1, '\0'));
    EXPECT_EQ(last.Exchange(OpenRequest("log")).size(), 24U);
}

}  // namespace
