#include "SocketOwners.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace vexfiled {
namespace {

sockaddr_in Loopback(std::uint16_t uPort) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A client that has finished sending is in one of the FIN_WAIT states.
bool IsConnected(std::uint8_t uState) {
    return uState == TCP_ESTABLISHED || uState == TCP_FIN_WAIT1 || uState == TCP_FIN_WAIT2;
}

bool HasEnded(int nSocket) {
    tcp_info info{};
    socklen_t cbInfo = sizeof info;
    return getsockopt(nSocket, IPPROTO_TCP, TCP_INFO, &info, &cbInfo) != 0 || info.tcpi_state == TCP_CLOSE;
}

}  // namespace

std::optional<Connection> ConnectionOf(int nSocket) {
    Connection connection{};
    socklen_t cbOwn = sizeof connection.own;
    socklen_t cbPeer = sizeof connection.peer;
    if (getsockname(nSocket, reinterpret_cast<sockaddr*>(&connection.own), &cbOwn) != 0 ||
        getpeername(nSocket, reinterpret_cast<sockaddr*>(&connection.peer), &cbPeer) != 0 ||
        connection.own.sin_family != AF_INET || connection.peer.sin_family != AF_INET) {
        return std::nullopt;
    }
    return connection;
}

SocketOwners::SocketOwners() : m_netlink(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {
    if (!m_netlink.IsOpen()) {
        throw std::system_error(errno, std::generic_category(), "the kernel's socket diagnosis");
    }
}

std::optional<SocketOwner> SocketOwners::OfPeer(int nSocket) {
    const auto connection = ConnectionOf(nSocket);
    return connection ? OfPeer(nSocket, *connection) : std::nullopt;
}

std::optional<SocketOwner> SocketOwners::OfPeer(int nSocket, const Connection& connection) {
    const auto entry = Find(connection.peer, connection.own);
    // A closed socket has no inode, and the kernel says user 0 for it.
    if (!entry || entry->owner.uInode == 0 || !IsConnected(entry->uState)) {
        return std::nullopt;
    }
    // Another socket can have the peer's port only after this connection has ended. Asked last, because it may have
    // ended before the kernel answered.
    if (HasEnded(nSocket)) {
        return std::nullopt;
    }
    return entry->owner;
}

std::optional<SocketOwner> SocketOwners::OfListener(std::uint16_t uPort) {
    const auto entry = Find(Loopback(uPort), sockaddr_in{});
    if (!entry || entry->uState != TCP_LISTEN) {
        return std::nullopt;
    }
    return entry->owner;
}

std::optional<SocketOwners::Entry> SocketOwners::Find(const sockaddr_in& local, const sockaddr_in& remote) {
    struct Question {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } question{};
    question.header.nlmsg_len = sizeof question;
    question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    question.header.nlmsg_flags = NLM_F_REQUEST;
    question.header.nlmsg_seq = ++m_uLastQuestion;
    // An IPv6 socket with a mapped address is found too.
    question.request.sdiag_family = AF_INET;
    question.request.sdiag_protocol = IPPROTO_TCP;
    question.request.idiag_states = ~0U;
    question.request.id.idiag_sport = local.sin_port;
    question.request.id.idiag_src[0] = local.sin_addr.s_addr;
    question.request.id.idiag_dport = remote.sin_port;
    question.request.id.idiag_dst[0] = remote.sin_addr.s_addr;
    question.request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    question.request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    if (send(m_netlink.Get(), &question, sizeof question, 0) != static_cast<ssize_t>(sizeof question)) {
        return std::nullopt;
    }
    // The kernel answers within the call of send. So there is nothing to wait for.
    for (;;) {
        alignas(nlmsghdr) std::array<char, 4096> answer{};
        const ssize_t cb = recv(m_netlink.Get(), answer.data(), answer.size(), MSG_DONTWAIT);
        if (cb < 0 && errno == EINTR) {
            continue;
        }
        nlmsghdr header{};
        inet_diag_msg found{};
        if (cb < static_cast<ssize_t>(sizeof header)) {
            return std::nullopt;
        }
        std::memcpy(&header, answer.data(), sizeof header);
        if (header.nlmsg_seq != m_uLastQuestion) {
            continue;
        }
        if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY || cb < static_cast<ssize_t>(NLMSG_HDRLEN + sizeof found)) {
            return std::nullopt;  // usually: there is no such socket
        }
        std::memcpy(&found, answer.data() + NLMSG_HDRLEN, sizeof found);
        return Entry{found.idiag_state, {found.idiag_uid, found.idiag_inode}};
    }
}

}  // namespace vexfiled
