#include "ScriptedPeer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <utility>

namespace {

// Seconds. With ThreadSanitizer on a busy machine, a client may take 20 s to allocate 2 GiB and free them again.
constexpr int kMaxSilence = 60;

std::string BytesOf(std::uint64_t n, std::size_t cb) {
    std::string strBytes;
    for (; cb > 0; --cb, n >>= 8) {
        strBytes += static_cast<char>(n & 0xFF);
    }
    return strBytes;
}

sockaddr_in Loopback(std::uint16_t uPort) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(uPort);
    return address;
}

int NewSocket() {
    const int nSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (nSocket < 0) {
        throw std::runtime_error("no socket");
    }
    return nSocket;
}

// Binds to a free port of the range that the system assigns. All of them are above 8665.
std::uint16_t BindToFreePort(int nSocket) {
    sockaddr_in address = Loopback(0);
    socklen_t cbAddress = sizeof address;
    if (bind(nSocket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        getsockname(nSocket, reinterpret_cast<sockaddr*>(&address), &cbAddress) != 0) {
        throw std::runtime_error("no free port");
    }
    return ntohs(address.sin_port);
}

}  // namespace

std::string Bytes16(std::uint16_t n) {
    return BytesOf(n, 2);
}

std::string Bytes32(std::uint32_t n) {
    return BytesOf(n, 4);
}

std::string Bytes64(std::uint64_t n) {
    return BytesOf(n, 8);
}

std::uint64_t NumberAt(std::string_view bytes, std::size_t nOffset, std::size_t cbNumber) {
    std::uint64_t n = 0;
    for (std::size_t i = cbNumber; i > 0; --i) {
        n = n << 8 | static_cast<unsigned char>(bytes.at(nOffset + i - 1));
    }
    return n;
}

std::string PeerMessage::Header() const {
    return Bytes16(uSourceSession) + Bytes16(uSourceObject) + BytesOf(uSourceCallBack, 1) +
           Bytes16(uDestinationSession) + Bytes16(uDestinationObject) + BytesOf(uDestinationCallBack, 1) +
           Bytes64(uSequence) + Bytes64(uParamter) + Bytes64(uLength.value_or(strPayload.size()));
}

PeerConnection::PeerConnection(int nSocket) : m_nSocket(nSocket) {
    const timeval limit = {kMaxSilence, 0};
    setsockopt(nSocket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(nSocket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    const int nOn = 1;
    setsockopt(nSocket, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof nOn);
}

std::string PeerConnection::Receive(std::size_t cb) {
    std::string strBytes(cb, '\0');
    std::size_t cbReceived = 0;
    while (cbReceived < cb) {
        const ssize_t n = recv(m_nSocket, strBytes.data() + cbReceived, cb - cbReceived, 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            ADD_FAILURE() << "the peer received " << cbReceived << " of " << cb << " bytes";
            strBytes.resize(cbReceived);
            break;
        }
        cbReceived += static_cast<std::size_t>(n);
    }
    return strBytes;
}

std::string PeerConnection::ReceiveToEnd() {
    std::string strBytes;
    char buffer[4096];
    for (;;) {
        const ssize_t n = recv(m_nSocket, buffer, sizeof buffer, 0);
        if (n > 0) {
            strBytes.append(buffer, static_cast<std::size_t>(n));
        } else if (n == 0 || errno == ECONNRESET) {
            return strBytes;
        } else if (errno != EINTR) {
            ADD_FAILURE() << "the client has not closed its connection";
            return strBytes;
        }
    }
}

PeerMessage PeerConnection::ReceiveMessage() {
    PeerMessage message;
    const std::string strHeader = Receive(34);
    if (strHeader.size() < 34) {
        return message;
    }
    const auto fnNumber16 = [&](std::size_t nOffset) {
        return static_cast<std::uint16_t>(NumberAt(strHeader, nOffset, 2));
    };
    message.uSourceSession = fnNumber16(0);
    message.uSourceObject = fnNumber16(2);
    message.uSourceCallBack = static_cast<std::uint8_t>(NumberAt(strHeader, 4, 1));
    message.uDestinationSession = fnNumber16(5);
    message.uDestinationObject = fnNumber16(7);
    message.uDestinationCallBack = static_cast<std::uint8_t>(NumberAt(strHeader, 9, 1));
    message.uSequence = NumberAt(strHeader, 10, 8);
    message.uParamter = NumberAt(strHeader, 18, 8);
    message.uLength = NumberAt(strHeader, 26, 8);
    message.strPayload = Receive(*message.uLength);
    return message;
}

bool PeerConnection::HasMore() {
    char ch = 0;
    ssize_t n = 0;
    do {
        n = recv(m_nSocket, &ch, 1, MSG_PEEK);
    } while (n < 0 && errno == EINTR);
    return n > 0;
}

bool PeerConnection::Send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = send(m_nSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

void PeerConnection::SendByteByByte(std::string_view bytes) {
    for (std::size_t i = 0; i < bytes.size() && Send(bytes.substr(i, 1)); ++i) {
        std::this_thread::yield();
    }
}

PeerMessage PeerConnection::AcceptRequest() {
    Receive(5);
    EXPECT_TRUE(Send(std::string(1, '\0')));
    return ReceiveMessage();
}

std::optional<PeerMessage> PeerConnection::AcceptRequestIfAny() {
    Receive(5);
    Send(std::string(1, '\0'));
    return HasMore() ? std::optional(ReceiveMessage()) : std::nullopt;
}

PeerMessage PeerConnection::ReplyTo(const PeerMessage& request, std::string strPayload) {
    PeerMessage reply;
    reply.uSourceSession = request.uDestinationSession;
    reply.uSourceObject = request.uDestinationObject;
    reply.uSourceCallBack = request.uDestinationCallBack;
    reply.uDestinationSession = request.uSourceSession;
    reply.uDestinationObject = request.uSourceObject;
    reply.uDestinationCallBack = request.uSourceCallBack;
    reply.uSequence = request.uSequence + 1;
    reply.uParamter = request.uParamter & ~std::uint64_t{4};
    reply.strPayload = std::move(strPayload);
    return reply;
}

void PeerConnection::Reply(const PeerMessage& request, std::string strPayload) {
    EXPECT_TRUE(Send(ReplyTo(request, std::move(strPayload)).Bytes()));
}

void PeerConnection::ShutdownSending() {
    shutdown(m_nSocket, SHUT_WR);
}

void PeerConnection::Close() {
    if (m_nSocket >= 0) {
        close(std::exchange(m_nSocket, -1));
    }
}

void PeerConnection::Reset() {
    const linger hard = {1, 0};
    setsockopt(m_nSocket, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    Close();
}

ScriptedPeer::ScriptedPeer(Script script) : m_script(std::move(script)), m_nListener(NewSocket()) {
    m_uPort = BindToFreePort(m_nListener);
    if (listen(m_nListener, 128) != 0) {
        throw std::runtime_error("cannot listen");
    }
    // The start of a thread may open files for a moment. Tests that rely on descriptor numbers begin after that.
    m_thread = std::thread([this] {
        m_running.set_value();
        Run();
    });
    m_running.get_future().wait();
}

void ScriptedPeer::Finish() {
    if (m_thread.joinable()) {
        shutdown(m_nListener, SHUT_RDWR);  // which wakes accept
        m_thread.join();
        close(m_nListener);
    }
}

void ScriptedPeer::Run() {
    for (;;) {
        // accept4 takes a descriptor before it waits, and might take the one that a test has freed for the client.
        pollfd listener = {m_nListener, POLLIN, 0};
        poll(&listener, 1, -1);
        const int nSocket = accept4(m_nListener, nullptr, nullptr, SOCK_CLOEXEC);
        if (nSocket >= 0) {
            PeerConnection connection(nSocket);
            m_script(connection);
        } else if (errno != EINTR && errno != ECONNABORTED) {
            return;
        }
    }
}

SilentPort::SilentPort(Kind kind) : m_nListener(NewSocket()) {
    m_uPort = BindToFreePort(m_nListener);
    if (kind == Kind::kFull) {
        listen(m_nListener, 0);
        for (int& nSocket : m_waiting) {
            nSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            const sockaddr_in address = Loopback(m_uPort);
            connect(nSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        }
    }
}

SilentPort::~SilentPort() {
    for (const int nSocket : m_waiting) {
        if (nSocket >= 0) {
            close(nSocket);
        }
    }
    close(m_nListener);
}
