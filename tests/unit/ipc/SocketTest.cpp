// What the client's socket promises by itself, at one end of a pair of sockets.
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

class SocketTest : public IpcTest {
protected:
    SocketTest() {
        SOCKET aSockets[2] = {CPipeSocket::NO_SOCKET, CPipeSocket::NO_SOCKET};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, aSockets), 0);
        m_nSocket = aSockets[0];
        m_nPeer = aSockets[1];
    }
    ~SocketTest() override { close(m_nPeer); }

    // Receives what has come so far. Whether the connection's end is behind it.
    bool HasEnded() const {
        std::string strBytes(1 << 20, '\0');
        ssize_t nReceived = 0;
        do {
            nReceived = recv(m_nPeer, strBytes.data(), strBytes.size(), MSG_DONTWAIT);
        } while (nReceived > 0);
        return nReceived == 0;
    }

    SOCKET m_nSocket = CPipeSocket::NO_SOCKET;  // for an object of the test
    SOCKET m_nPeer = CPipeSocket::NO_SOCKET;
};

TEST_F(SocketTest, ClosingEndsTheConnectionThoughAForkedChildStillHasIt) {
    const int nOfTheChild = dup(m_nSocket);
    CPipeSocket socket(m_nSocket);
    EXPECT_FALSE(HasEnded());
    socket.Close();
    EXPECT_EQ(socket.Get(), CPipeSocket::NO_SOCKET);
    EXPECT_TRUE(HasEnded());
    close(nOfTheChild);
}

TEST_F(SocketTest, AMessageThatIsCutLeavesNothing) {
    const CPipeSocket socket(m_nSocket);
    PeerMessage message;
    message.strPayload = "payload";
    const std::string strBytes = message.Bytes();
    ASSERT_EQ(send(m_nPeer, strBytes.data(), strBytes.size() - 1, 0), static_cast<ssize_t>(strBytes.size() - 1));
    shutdown(m_nPeer, SHUT_WR);
    CSmartBuffer received("before", 6);
    EXPECT_EQ(RecvDataFunc(socket, CPipeDeadline(0), received), 0);
    EXPECT_EQ(TextOf(received), "");
}

TEST_F(SocketTest, AMessageThatIsSentInPartEndsTheConnection) {
    CPipeConnection connection(CPipeSocket(m_nSocket), std::make_shared<CPipeOwner>(nullptr));
    const CSmartBuffer small("whole", 5);
    SOCKET nSocket = CPipeSocket::NO_SOCKET;
    EXPECT_EQ(connection.Send(small, 1000, nSocket), 5);
    EXPECT_EQ(nSocket, m_nSocket);
    EXPECT_FALSE(HasEnded());

    CSmartBuffer large;
    ASSERT_NE(large.Alloc(50'000'000), nullptr);  // more than the system takes from the one and gives to the other
    EXPECT_EQ(connection.Send(large, 1, nSocket), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_TRUE(HasEnded());
}

}  // namespace
