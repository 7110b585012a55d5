// Asks the kernel which user's socket is the other end of a TCP connection on this machine.
//
// It uses the kernel's socket diagnosis (sock_diag(7)), which looks up one connection. /proc/net/tcp has the same
// answers, but reading it takes milliseconds, and each exchange of the log is a connection. For one thread.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>

#include "posix/FileDescriptor.h"

namespace vexfiled {

struct SocketOwner {
    uid_t user;            // who made the socket
    std::uint32_t uInode;  // as in the links of /proc/<process>/fd: socket:[<inode>]
};

// The addresses of a connected socket.
struct Connection {
    sockaddr_in own;
    sockaddr_in peer;
};

// Nothing: the socket is not connected, or it is not an IPv4 socket.
std::optional<Connection> ConnectionOf(int nSocket);

class SocketOwners {
public:
    // Throws std::system_error if the kernel has no socket diagnosis.
    SocketOwners();

    // The owner of the other end of this connected IPv4 socket. Nothing in every case of doubt: a program has closed
    // the other end, the connection has ended, or the other end is not in this network namespace. The answer is about
    // the program that this connection was made with, also if another one uses its port by now.
    std::optional<SocketOwner> OfPeer(int nSocket);
    // The same; connection: what ConnectionOf has returned for the socket.
    std::optional<SocketOwner> OfPeer(int nSocket, const Connection& connection);

    // The owner of the socket that listens on this port of 127.0.0.1.
    std::optional<SocketOwner> OfListener(std::uint16_t uPort);

private:
    struct Entry {
        std::uint8_t uState;
        SocketOwner owner;
    };
    std::optional<Entry> Find(const sockaddr_in& local, const sockaddr_in& remote);

    vexposix::FileDescriptor m_netlink;
    std::uint32_t m_uLastQuestion = 0;
};

}  // namespace vexfiled
