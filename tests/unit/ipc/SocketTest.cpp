// The client's sockets and connections, at one end of a socket pair.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>

#include "IpcTest.h"
#include "PipeConnection.h"
#include "PipeSocket.h"

namespace {

TEST(PipeDeadline, TimeLeftHasPartsOfASecond) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds kTimeout(10900);
    const Clock::time_point before = Clock::now();
    const CPipeDeadline deadline(static_cast<DWORD>(kTimeout.count()));
    timeval left = {};
    EXPECT_TRUE(deadline.TimeLeft(left));
    const auto passed = Clock::now() - before;
    const auto time = std::chrono::seconds(left.tv_sec) + std::chrono::microseconds(left.tv_usec);
    EXPECT_LE(time, kTimeout);
    EXPECT_GE(time, kTimeout - passed);
}

// A time-out of 0, and one that the clock cannot hold. Times left of 0 are for ever in the socket options, too.
TEST(PipeDeadline, ForEverHasNoTimeLeftToCount) {
    for (const DWORD dwForEver : {DWORD{0}, ~DWORD{0}}) {
        for (const CPipeDeadline& deadline : {CPipeDeadline(dwForEver), CPipeReplyTime(dwForEver).NextReceive()}) {
            timeval left = {1, 1};
            EXPECT_TRUE(deadline.TimeLeft(left));
            EXPECT_EQ(left.tv_sec, 0);
            EXPECT_EQ(left.tv_usec, 0);
        }
    }
}

class SocketTest : public IpcTest {
protected:
    SocketTest() {
        SOCKET aSockets[2] = {CPipeSocket::NO_SOCKET, CPipeSocket::NO_SOCKET};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, aSockets), 0);
        m_nSocket = aSockets[0];
        m_nPeer = aSockets[1];
    }
    ~SocketTest() override { close(m_nPeer); }

    // Receives what has arrived. TRUE: the end of the connection follows.
    bool HasEnded() const {
        std::string strBytes(1 << 20, '\0');
        ssize_t nReceived = 0;
        do {
            nReceived = recv(m_nPeer, strBytes.data(), strBytes.size(), MSG_DONTWAIT);
        } while (nReceived > 0);
        return nReceived == 0;
    }

    SOCKET m_nSocket = CPipeSocket::NO_SOCKET;  // for an object under test
    SOCKET m_nPeer = CPipeSocket::NO_SOCKET;
};

TEST_F(SocketTest, ClosingEndsTheConnectionThoughAForkedChildStillHasIt) {
    const int nChildsSocket = dup(m_nSocket);
    CPipeSocket socket(m_nSocket);
    EXPECT_FALSE(HasEnded());
    socket.Close();
    EXPECT_EQ(socket.Get(), CPipeSocket::NO_SOCKET);
    EXPECT_TRUE(HasEnded());
    close(nChildsSocket);
}

TEST_F(SocketTest, AnIncompleteMessageLeavesAnEmptyBuffer) {
    const CPipeSocket socket(m_nSocket);
    PeerMessage message;
    message.strPayload = "payload";
    const std::string strBytes = message.Bytes();
    ASSERT_EQ(send(m_nPeer, strBytes.data(), strBytes.size() - 1, 0), static_cast<ssize_t>(strBytes.size() - 1));
    shutdown(m_nPeer, SHUT_WR);
    CSmartBuffer received("before", 6);
    EXPECT_EQ(RecvDataFunc(
                  socket, [] { return CPipeDeadline(0); }, received),
              0);
    EXPECT_EQ(TextOf(received), "");
}

TEST_F(SocketTest, AMessageSentInPartEndsTheConnection) {
    CPipeConnection connection(CPipeSocket(m_nSocket), std::make_shared<CPipeOwner>(nullptr));
    EXPECT_TRUE(connection.Send(CSmartBuffer("whole", 5), 1000));
    EXPECT_FALSE(HasEnded());

    CSmartBuffer large;
    ASSERT_NE(large.Alloc(50'000'000), nullptr);  // more than the system buffers
    EXPECT_FALSE(connection.Send(large, 1));
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_TRUE(HasEnded());
}

TEST_F(SocketTest, AMessageNotSentAtAllKeepsTheConnection) {
    CPipeConnection connection(CPipeSocket(m_nSocket), std::make_shared<CPipeOwner>(nullptr));
    const std::string strBlock(4096, 'x');
    while (send(m_nSocket, strBlock.data(), strBlock.size(), MSG_DONTWAIT) > 0) {
    }
    EXPECT_FALSE(connection.Send(CSmartBuffer("not sent", 8), 1));
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(HasEnded());
    EXPECT_TRUE(connection.Send(CSmartBuffer("sent", 4), 1000));
    char szReceived[10] = {};
    EXPECT_EQ(recv(m_nPeer, szReceived, sizeof szReceived, 0), 4);
    EXPECT_STREQ(szReceived, "sent");
}

TEST_F(SocketTest, NothingBeginsAfterTheDeadline) {
    const CPipeSocket socket(m_nSocket);
    ASSERT_EQ(send(m_nPeer, "x", 1, 0), 1);
    const CPipeDeadline over(1);
    timeval left = {};
    while (over.TimeLeft(left)) {
    }
    char ch = '\0';
    EXPECT_EQ(socket.Receive(&ch, 1, over), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(socket.Send("y", 1, over), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(socket.Connect(htonl(INADDR_LOOPBACK), 1, over));
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(socket.Receive(&ch, 1, CPipeDeadline(0)), 1);
    EXPECT_EQ(ch, 'x');
}

TEST_F(SocketTest, SendReturnsTheNumberOfBytesSent) {
    const CPipeSocket socket(m_nSocket);
    const std::string strLarge(50'000'000, 'x');
    ssize_t nSent = -1;
    // On a busy machine a millisecond may be over before the first byte is sent.
    for (DWORD dwTimeout = 1; nSent < 0 && dwTimeout < 10'000; dwTimeout *= 2) {
        nSent = socket.Send(strLarge.data(), strLarge.size(), CPipeDeadline(dwTimeout));
    }
    EXPECT_GT(nSent, 0);
    EXPECT_LT(nSent, static_cast<ssize_t>(strLarge.size()));
    EXPECT_EQ(socket.Send(strLarge.data(), strLarge.size(), CPipeDeadline(1)), -1);
}

}  // namespace
