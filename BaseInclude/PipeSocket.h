// The sockets of the IPC client: deadlines, transfers of bytes, and whole messages. RouteMessage.h has the records.
//
// A socket is for one thread at a time, except that one thread may send while another one receives.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstring>
#include <utility>

#include "PipeLog.h"
#include "RouteMessage.h"
#include "SmartBuffer.h"
#include "VEXType.h"

// Deadline for an operation of several system calls. Slow peers and signals cannot extend it. Any thread.
class CPipeDeadline {
public:
    // In milliseconds from now. 0: never.
    explicit CPipeDeadline(DWORD dwTimeout)
        : m_end(dwTimeout == 0 || dwTimeout > MAX_TIMEOUT
                    ? Clock::time_point::max()
                    : Clock::now() + std::chrono::milliseconds(static_cast<LONGLONG>(dwTimeout))) {}

    static CPipeDeadline Earlier(const CPipeDeadline& a, const CPipeDeadline& b) { return a.m_end < b.m_end ? a : b; }

    // The time left, in the form of the socket options, where 0 means for ever. FALSE: no time is left.
    BOOL TimeLeft(timeval& left) const {
        left = {};
        if (m_end == Clock::time_point::max()) {
            return TRUE;
        }
        const auto remaining = std::chrono::ceil<std::chrono::microseconds>(m_end - Clock::now()).count();
        left.tv_sec = remaining / 1000000;
        left.tv_usec = remaining % 1000000;
        return remaining > 0;
    }

private:
    using Clock = std::chrono::steady_clock;

    static constexpr DWORD MAX_TIMEOUT = DWORD{1} << 40;  // 34 years, and no overflow

    Clock::time_point m_end;
};

// The time for a reply: the time-out starts again with each receive, and all receives together have ten times as long.
// So a peer that sends its reply byte by byte cannot hold an exchange for ever. Any thread.
class CPipeReplyTime {
public:
    // In milliseconds from now. 0: for ever.
    explicit CPipeReplyTime(DWORD dwTimeout)
        : m_dwTimeout(dwTimeout), m_end(dwTimeout > ~DWORD{0} / TIMES ? 0 : dwTimeout * TIMES) {}

    // The deadline of a receive that begins now.
    CPipeDeadline NextReceive() const { return CPipeDeadline::Earlier(CPipeDeadline(m_dwTimeout), m_end); }

private:
    static constexpr DWORD TIMES = 10;

    DWORD m_dwTimeout;
    CPipeDeadline m_end;
};

// Owns a TCP socket. Results and errno are those of the system calls of the same name, with two differences: signals do
// not interrupt an operation, and an operation that is not done at its deadline fails.
class CPipeSocket {
public:
    static constexpr SOCKET NO_SOCKET = -1;

    explicit CPipeSocket(SOCKET socket = NO_SOCKET) : m_socket(socket) {}
    CPipeSocket(CPipeSocket&& other) noexcept : m_socket(std::exchange(other.m_socket, NO_SOCKET)) {}
    CPipeSocket(const CPipeSocket&) = delete;
    CPipeSocket& operator=(const CPipeSocket&) = delete;
    CPipeSocket& operator=(CPipeSocket&&) = delete;
    ~CPipeSocket() { Close(); }

    SOCKET Get() const { return m_socket; }

    // Programs that the process starts do not inherit the socket.
    BOOL Create() {
        Close();
        m_socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        return m_socket != NO_SOCKET;
    }

    // ulIP: in network byte order.
    BOOL Connect(ULONG ulIP, USHORT usPort, const CPipeDeadline& deadline) const {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = static_cast<in_addr_t>(ulIP);
        address.sin_port = htons(usPort);
        // After a signal, the next call waits for the connection attempt that is in progress.
        while (SetTimeout(SO_SNDTIMEO, deadline)) {
            if (::connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
                return TRUE;
            }
            if (errno == EINPROGRESS || errno == EALREADY) {
                break;
            }
            if (errno != EINTR) {
                return FALSE;
            }
        }
        errno = ETIMEDOUT;
        return FALSE;
    }

    // Sends all bytes, in one system call unless a signal cuts it short. Returns the number of bytes sent: fewer than
    // cbData after a failure, -1 when it failed before the first byte.
    ssize_t Send(const void* pData, std::size_t cbData, const CPipeDeadline& deadline) const {
        const BYTE* const pbData = static_cast<const BYTE*>(pData);
        std::size_t cbSent = 0;
        do {
            const BOOL bInTime = SetTimeout(SO_SNDTIMEO, deadline);
            const ssize_t nSent =
                bInTime ? ::send(m_socket, pbData + cbSent, cbData - cbSent, MSG_NOSIGNAL) : ssize_t{-1};
            if (nSent < 0 && errno != EINTR) {
                return cbSent == 0 ? -1 : static_cast<ssize_t>(cbSent);
            }
            cbSent += nSent < 0 ? 0 : static_cast<std::size_t>(nSent);
        } while (cbSent < cbData);
        return static_cast<ssize_t>(cbSent);
    }

    // Receives at least one byte. 0: the peer has ended the connection.
    ssize_t Receive(void* pData, std::size_t cbData, const CPipeDeadline& deadline) const {
        while (SetTimeout(SO_RCVTIMEO, deadline)) {
            const ssize_t nReceived = ::recv(m_socket, pData, cbData, 0);
            if (nReceived >= 0 || errno != EINTR) {
                return nReceived;
            }
        }
        return -1;
    }

    // Receives exactly cbData bytes. Returns cbData, or what the failed Receive returned. fnNextReceive returns the
    // deadline of the next Receive and is called before each.
    template <typename TNextReceive>
    ssize_t ReceiveAll(void* pData, std::size_t cbData, TNextReceive fnNextReceive) const {
        BYTE* const pbData = static_cast<BYTE*>(pData);
        for (std::size_t cbReceived = 0; cbReceived < cbData;) {
            const ssize_t nReceived = Receive(pbData + cbReceived, cbData - cbReceived, fnNextReceive());
            if (nReceived <= 0) {
                return nReceived;
            }
            cbReceived += static_cast<std::size_t>(nReceived);
        }
        return static_cast<ssize_t>(cbData);
    }

    // Ends the connection for the peer and for a thread that receives on it here; the descriptor stays open. Closing
    // alone would do neither while another thread or a forked child still uses the descriptor.
    void Shutdown() const {
        if (m_socket != NO_SOCKET) {
            ::shutdown(m_socket, SHUT_RDWR);
        }
    }

    void Close() {
        Shutdown();
        if (m_socket != NO_SOCKET) {
            ::close(std::exchange(m_socket, NO_SOCKET));
        }
    }

private:
    // FALSE: the deadline has passed, and errno is that of a time-out. A failure to set the option is ignored.
    BOOL SetTimeout(int nOption, const CPipeDeadline& deadline) const {
        timeval left = {};
        if (!deadline.TimeLeft(left)) {
            errno = EAGAIN;
            return FALSE;
        }
        ::setsockopt(m_socket, SOL_SOCKET, nOption, &left, sizeof left);
        return TRUE;
    }

    SOCKET m_socket;
};

// The longest payload accepted, in bytes: lengths and results are ints here. A longer message is refused before memory
// is allocated, with the same result as when memory runs out.
inline constexpr DWORD PIPE_MAX_PAYLOAD = INT_MAX - sizeof(RouteMessageHeader);

// Receives one message, header and payload. Returns its size in bytes; 0 when the peer has ended the connection and -1
// on failure, both with an empty objMessage. The caller checks the header. fnNextReceive: see ReceiveAll.
template <typename TNextReceive>
int RecvDataFunc(const CPipeSocket& socket, TNextReceive fnNextReceive, CSmartBuffer& objMessage) {
    objMessage.Free();
    RouteMessageHeader msgHeader = {};
    const auto nHeader = static_cast<int>(socket.ReceiveAll(&msgHeader, sizeof msgHeader, fnNextReceive));
    if (nHeader <= 0) {
        pv_logEx("RecvDataFunc::recv header error ret =%d result=%s", nHeader, std::strerror(nHeader));
        return nHeader;
    }
    const DWORD dwMessageLen = msgHeader.MessageLen;
    if (dwMessageLen == 0) {
        pv_logEx("RecvDataFunc::msgHeader.MessageLen <= 0");
    }
    // The system assigns the pages of a new block as bytes arrive, so a large length alone costs no memory.
    if (dwMessageLen > PIPE_MAX_PAYLOAD || objMessage.Alloc(sizeof msgHeader + dwMessageLen) == nullptr) {
        pv_logEx("RecvDataFunc::malloc error");
        return -1;
    }
    std::memcpy(objMessage.GetAddress(), &msgHeader, sizeof msgHeader);
    if (dwMessageLen != 0) {
        const auto nData =
            static_cast<int>(socket.ReceiveAll(objMessage.GetBytes() + sizeof msgHeader, dwMessageLen, fnNextReceive));
        if (nData <= 0) {
            pv_logEx("RecvDataFunc::recv data error ret =%d", nData);
            objMessage.Free();
            return nData;
        }
    }
    return static_cast<int>(sizeof msgHeader + dwMessageLen);
}

// The header of a message from RecvDataFunc, which must not be empty.
inline RouteMessageHeader PipeMessageHeader(const CSmartBuffer& objMessage) {
    RouteMessageHeader header = {};
    // Not CSmartBuffer::GetBuffer: for a very large block it treats nearby addresses as part of the block.
    std::memcpy(&header, objMessage.GetAddress(), sizeof header);
    return header;
}

// Builds a message, header and payload. header.MessageLen is the payload's length in bytes; pPayload may be null when
// it is 0. objMessage is empty when memory runs out.
inline void PipeBuildMessage(const RouteMessageHeader& header, const void* pPayload, CSmartBuffer& objMessage) {
    const DWORD dwMessageLen = header.MessageLen;
    objMessage.Free();
    if (dwMessageLen > static_cast<DWORD>(PTRDIFF_MAX) - sizeof header ||
        objMessage.Alloc(sizeof header + dwMessageLen) == nullptr) {
        return;
    }
    std::memcpy(objMessage.GetAddress(), &header, sizeof header);
    if (dwMessageLen != 0) {
        std::memcpy(objMessage.GetBytes() + sizeof header, pPayload, dwMessageLen);
    }
}
