#include "timestamp/Connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "posix/ErrnoText.h"
#include "timestamp/Lookup.h"

namespace vextimestamp {
namespace {

using vexposix::ErrnoText;
using vexposix::FileDescriptor;

// Rounded up, so that poll does not return before the deadline. 0: the deadline is over.
int MillisecondsTo(Deadline deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

// FALSE: the deadline is over. Errors of the socket end the wait; the next operation reports them.
bool Wait(int nSocket, short nEvents, Deadline deadline) {
    pollfd waited = {nSocket, nEvents, 0};
    for (;;) {
        const int nWait = MillisecondsTo(deadline);
        const int nReady = poll(&waited, 1, nWait);
        if (nReady > 0) {
            return true;
        }
        if (nReady < 0 && errno != EINTR) {
            throw Fault("the system does not wait for the connection: " + ErrnoText(errno));
        }
        if (nWait == 0) {
            return false;
        }
    }
}

// Returns errno; 0: connected.
int Connect(const addrinfo& address, Deadline deadline, FileDescriptor& connected) {
    FileDescriptor descriptor(
        socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, address.ai_protocol));
    if (!descriptor.IsOpen()) {
        return errno;
    }
    // After a signal the connection is made nevertheless.
    if (connect(descriptor.Get(), address.ai_addr, address.ai_addrlen) != 0) {
        if (errno != EINPROGRESS && errno != EINTR) {
            return errno;
        }
        if (!Wait(descriptor.Get(), POLLOUT, deadline)) {
            return ETIMEDOUT;
        }
        int nError = 0;
        socklen_t cbError = sizeof nError;
        if (getsockopt(descriptor.Get(), SOL_SOCKET, SO_ERROR, &nError, &cbError) != 0) {
            return errno;
        }
        if (nError != 0) {
            return nError;
        }
    }
    connected = std::move(descriptor);
    return 0;
}

[[noreturn]] void ThrowLost(const char* pszWhat) {
    throw Fault(std::string("the connection is lost while it ") + pszWhat + ": " + ErrnoText(errno) +
                "; try again, or use another authority");
}

}  // namespace

Deadline PartOf(Deadline deadline, std::size_t cParts) {
    const Deadline now = std::chrono::steady_clock::now();
    const auto left = std::max(deadline - now, Deadline::duration::zero());
    return now + left / static_cast<Deadline::rep>(std::max<std::size_t>(cParts, 1));
}

Connection::Connection(const std::string& strHost, const std::string& strPort, Deadline deadline) {
    const AddressesPtr addresses = AddressesOf(strHost, strPort, deadline);
    std::size_t cLeft = 0;
    for (const addrinfo* pAddress = addresses.get(); pAddress != nullptr; pAddress = pAddress->ai_next) {
        ++cLeft;
    }
    int nError = 0;
    for (const addrinfo* pAddress = addresses.get(); pAddress != nullptr; pAddress = pAddress->ai_next, --cLeft) {
        nError = Connect(*pAddress, PartOf(deadline, cLeft), m_socket);
        if (nError == 0) {
            return;
        }
    }
    throw Fault("there is no connection: " + ErrnoText(nError) +
                "; check the address and that a firewall lets it through, or allow more time");
}

void Connection::Send(std::span<const char> bytes, Deadline deadline) const {
    while (!bytes.empty()) {
        // A host that has not ignored SIGPIPE must not end because an authority has closed the connection.
        const ssize_t cb = send(m_socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (cb >= 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(cb));
        } else if (errno == EAGAIN) {
            if (!Wait(m_socket.Get(), POLLOUT, deadline)) {
                throw Fault("the request is not received in time; try again, or allow more time");
            }
        } else if (errno != EINTR) {
            ThrowLost("receives the request");
        }
    }
}

std::size_t Connection::Receive(std::span<char> buffer, Deadline deadline) const {
    for (;;) {
        // A peer that sends without end must not be able to hide the deadline.
        if (MillisecondsTo(deadline) == 0 || !Wait(m_socket.Get(), POLLIN, deadline)) {
            throw Fault("the answer is not complete in time; try again, or allow more time");
        }
        const ssize_t cb = recv(m_socket.Get(), buffer.data(), buffer.size(), 0);
        if (cb >= 0) {
            return static_cast<std::size_t>(cb);
        }
        if (errno != EAGAIN && errno != EINTR) {
            ThrowLost("sends its answer");
        }
    }
}

}  // namespace vextimestamp
