// Whose socket the other end of a connection is. The kernel's table in /proc is the judge.
#include "SocketOwners.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

#include "SocketUsers.h"
#include "Users.h"
#include "posix/FileDescriptor.h"

namespace {

using vexfiled::SocketOwner;
using vexfiled::SocketOwners;
using vexposix::FileDescriptor;

sockaddr_in Loopback(std::uint16_t uPort = 0) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

template <typename Address>
std::uint16_t PortOf(int nSocket, Address address) {
    socklen_t cb = sizeof address;
    EXPECT_EQ(getsockname(nSocket, reinterpret_cast<sockaddr*>(&address), &cb), 0);
    return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);  // at the same place for both families
}

std::uint32_t InodeOf(int nSocket) {
    struct stat status {};
    EXPECT_EQ(fstat(nSocket, &status), 0);
    return static_cast<std::uint32_t>(status.st_ino);
}

// The row of the table whose local address ends in the port and which is connected: its user and inode.
std::vector<std::string> RowOf(const char* pszTable, std::uint16_t uPort) {
    std::ostringstream port;
    port << ':' << std::hex << std::uppercase << std::setw(4) << std::setfill('0') << uPort;
    std::ifstream table(pszTable);
    for (std::string strLine; std::getline(table, strLine);) {
        std::istringstream line(strLine);
        std::vector<std::string> fields(10);
        for (std::string& strField : fields) {
            line >> strField;
        }
        if (fields[1].ends_with(port.str()) && fields[3] == "01") {
            return {fields[7], fields[9]};
        }
    }
    return {};
}

class OwnersOfSockets : public testing::Test {
protected:
    OwnersOfSockets() : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in address = Loopback();
        EXPECT_EQ(bind(m_listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(m_listener.Get(), 10), 0);
        m_uPort = PortOf(m_listener.Get(), sockaddr_in{});
    }

    // uOwn: the port to connect from; 0 for any.
    FileDescriptor Connect(std::uint16_t uOwn = 0) const {
        FileDescriptor client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_in own = Loopback(uOwn);
        const sockaddr_in address = Loopback(m_uPort);
        EXPECT_EQ(bind(client.Get(), reinterpret_cast<const sockaddr*>(&own), sizeof own), 0);
        EXPECT_EQ(connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        return client;
    }

    FileDescriptor Accept() const { return FileDescriptor(accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC)); }

    static void Reset(FileDescriptor& client) {
        const linger atOnce{1, 0};
        setsockopt(client.Get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        client = FileDescriptor();
    }

    FileDescriptor m_listener;
    std::uint16_t m_uPort = 0;
    SocketOwners m_owners;
};

TEST_F(OwnersOfSockets, AConnectedClient) {
    const FileDescriptor client = Connect();
    const FileDescriptor accepted = Accept();
    const auto owner = m_owners.OfPeer(accepted.Get());
    ASSERT_TRUE(owner);
    EXPECT_EQ(owner->user, geteuid());
    EXPECT_EQ(owner->uInode, InodeOf(client.Get()));
    EXPECT_EQ(RowOf("/proc/net/tcp", PortOf(client.Get(), sockaddr_in{})),
              (std::vector<std::string>{std::to_string(owner->user), std::to_string(owner->uInode)}));
}

TEST_F(OwnersOfSockets, AClientWithAnIpv6Socket) {
    const FileDescriptor client(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!client.IsOpen()) {
        GTEST_SKIP() << "skipped: no IPv6";
    }
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(m_uPort);
    const std::uint32_t uLoopback = htonl(INADDR_LOOPBACK);
    address.sin6_addr.s6_addr[10] = address.sin6_addr.s6_addr[11] = 0xFF;  // ::ffff:127.0.0.1
    std::copy_n(reinterpret_cast<const unsigned char*>(&uLoopback), 4, address.sin6_addr.s6_addr + 12);
    ASSERT_EQ(connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const FileDescriptor accepted = Accept();
    const auto owner = m_owners.OfPeer(accepted.Get());
    ASSERT_TRUE(owner);
    EXPECT_EQ(owner->uInode, InodeOf(client.Get()));
    EXPECT_EQ(RowOf("/proc/net/tcp6", PortOf(client.Get(), sockaddr_in6{})),
              (std::vector<std::string>{std::to_string(geteuid()), std::to_string(owner->uInode)}));
}

TEST_F(OwnersOfSockets, AnotherUsersClient) {
    const AsUser as(kSomebody);
    if (!as.Done()) {
        GTEST_SKIP() << "skipped: only root can act as another user";
    }
    const FileDescriptor client = Connect();
    const FileDescriptor accepted = Accept();
    const auto owner = m_owners.OfPeer(accepted.Get());
    ASSERT_TRUE(owner);
    EXPECT_EQ(owner->user, kSomebody);
}

TEST_F(OwnersOfSockets, AClientThatHasFinishedSending) {
    const FileDescriptor client = Connect();
    ASSERT_EQ(shutdown(client.Get(), SHUT_WR), 0);
    const FileDescriptor accepted = Accept();
    const auto owner = m_owners.OfPeer(accepted.Get());
    ASSERT_TRUE(owner);
    EXPECT_EQ(owner->uInode, InodeOf(client.Get()));
}

// The kernel has user 0 for such sockets.
TEST_F(OwnersOfSockets, NobodyAfterTheClientHasClosed) {
    FileDescriptor client = Connect();
    const FileDescriptor accepted = Accept();
    EXPECT_TRUE(m_owners.OfPeer(accepted.Get()));
    client = FileDescriptor();
    EXPECT_FALSE(m_owners.OfPeer(accepted.Get()));
}

TEST_F(OwnersOfSockets, NobodyAfterAReset) {
    FileDescriptor client = Connect();
    const FileDescriptor accepted = Accept();
    Reset(client);
    EXPECT_FALSE(m_owners.OfPeer(accepted.Get()));
}

// The bytes of the first client can still be read, so it must not pass as the second one.
TEST_F(OwnersOfSockets, NobodyWhenAnotherClientUsesThePort) {
    FileDescriptor client = Connect();
    const std::uint16_t uPort = PortOf(client.Get(), sockaddr_in{});
    ASSERT_EQ(send(client.Get(), "bytes", 5, MSG_NOSIGNAL), 5);
    const FileDescriptor accepted = Accept();
    const auto connection = vexfiled::ConnectionOf(accepted.Get());
    ASSERT_TRUE(connection);
    EXPECT_TRUE(m_owners.OfPeer(accepted.Get(), *connection));
    Reset(client);
    const FileDescriptor second = Connect(uPort);
    const FileDescriptor acceptedSecond = Accept();
    EXPECT_FALSE(m_owners.OfPeer(accepted.Get(), *connection));
    EXPECT_FALSE(m_owners.OfPeer(accepted.Get()));
    const auto owner = m_owners.OfPeer(acceptedSecond.Get());
    ASSERT_TRUE(owner);
    EXPECT_EQ(owner->uInode, InodeOf(second.Get()));
}

// A socket that is only trying to connect says nothing about who made the connection before it.
TEST_F(OwnersOfSockets, NobodyWhileAnotherSocketConnects) {
    const FileDescriptor client = Connect();
    const FileDescriptor accepted = Accept();
    const FileDescriptor full(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = Loopback();
    ASSERT_EQ(bind(full.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(full.Get(), 0), 0);
    address.sin_port = htons(PortOf(full.Get(), sockaddr_in{}));
    std::vector<FileDescriptor> waiting;
    for (int i = 0; i < 3; ++i) {
        waiting.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        connect(waiting.back().Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    vexfiled::Connection connection{address, Loopback(PortOf(waiting.front().Get(), sockaddr_in{}))};
    EXPECT_TRUE(m_owners.OfPeer(accepted.Get(), connection));
    connection.peer = Loopback(PortOf(waiting.back().Get(), sockaddr_in{}));
    EXPECT_FALSE(m_owners.OfPeer(accepted.Get(), connection));
}

TEST_F(OwnersOfSockets, NobodyForOtherSockets) {
    EXPECT_FALSE(m_owners.OfPeer(m_listener.Get()));
    EXPECT_FALSE(m_owners.OfPeer(-1));
    const FileDescriptor unconnected(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_FALSE(m_owners.OfPeer(unconnected.Get()));
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    const FileDescriptor first(pair[0]);
    const FileDescriptor second(pair[1]);
    EXPECT_FALSE(m_owners.OfPeer(first.Get()));
}

TEST_F(OwnersOfSockets, AListener) {
    const auto owner = m_owners.OfListener(m_uPort);
    ASSERT_TRUE(owner);
    EXPECT_EQ(owner->user, geteuid());
    EXPECT_EQ(owner->uInode, InodeOf(m_listener.Get()));
    const FileDescriptor client = Connect();
    EXPECT_FALSE(m_owners.OfListener(PortOf(client.Get(), sockaddr_in{})));
    m_listener = FileDescriptor();
    EXPECT_FALSE(m_owners.OfListener(m_uPort));
}

TEST_F(OwnersOfSockets, TextsNameTheProcess) {
    const FileDescriptor client = Connect();
    const SocketOwner own{4711, InodeOf(client.Get())};
    const SocketOwner listening{4711, InodeOf(m_listener.Get())};
    const SocketOwner unknown{4712, 0};
    std::string strName;
    std::getline(std::ifstream("/proc/self/comm"), strName);
    const std::string strProcess = "process " + std::to_string(getpid()) + " (\"" + strName + "\") of user 4711";
    EXPECT_EQ(HolderText(own), strProcess);
    EXPECT_EQ(HolderText(unknown), "a process of user 4712");
    EXPECT_EQ(vexfiled::HoldersText({unknown, own, listening}), "2 by " + strProcess + ", 1 by a process of user 4712");
    EXPECT_EQ(vexfiled::HoldersText({{1, 0}, {2, 0}, {3, 0}, {4, 0}, {5, 0}}).find("others"), std::string::npos);
    EXPECT_EQ(vexfiled::HoldersText({{1, 0}, {2, 0}, {3, 0}, {4, 0}, {5, 0}, {6, 0}, {1, 0}}),
              "2 by a process of user 1, 1 by a process of user 6, 1 by a process of user 5, 1 by a process of user 4, "
              "1 by a process of user 3, and others");
}

}  // namespace
