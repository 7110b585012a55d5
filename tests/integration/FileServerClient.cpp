#include "FileServerClient.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "FileRequests.h"

namespace {

[[noreturn]] void ThrowError(const char* pszWhat) {
    throw std::system_error(errno, std::generic_category(), pszWhat);
}

}  // namespace

FileServerClient::FileServerClient(std::uint16_t uPort)
    : m_uPort(uPort), m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const timeval timeout{60, 0};
    setsockopt(m_socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ThrowError("connect");
    }
}

int FileServerClient::Register() {
    Send(Number(1234, 2) + Number(5678, 2) + Number(0, 1));
    const std::string strStatus = Receive(1);
    return strStatus.empty() ? -1 : static_cast<unsigned char>(strStatus[0]);
}

void FileServerClient::Send(const std::string& strBytes) {
    for (std::size_t cbSent = 0; cbSent < strBytes.size();) {
        const ssize_t cb = send(m_socket.Get(), strBytes.data() + cbSent, strBytes.size() - cbSent, MSG_NOSIGNAL);
        if (cb < 0) {
            // A dropped client notices at its next receive.
            if (errno == EPIPE || errno == ECONNRESET) {
                return;
            }
            ThrowError("send");
        }
        cbSent += static_cast<std::size_t>(cb);
    }
}

std::string FileServerClient::Receive(std::size_t cb) {
    std::string strBytes(cb, '\0');
    std::size_t cbReceived = 0;
    while (cbReceived < cb) {
        const ssize_t cbNow = recv(m_socket.Get(), strBytes.data() + cbReceived, cb - cbReceived, 0);
        if (cbNow < 0 && errno != ECONNRESET) {
            ThrowError("recv");
        }
        if (cbNow <= 0) {
            break;
        }
        cbReceived += static_cast<std::size_t>(cbNow);
    }
    strBytes.resize(cbReceived);
    return strBytes;
}

void FileServerClient::Reset() {
    const linger atOnce{1, 0};
    setsockopt(m_socket.Get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    m_socket = vexposix::FileDescriptor();
}

std::string FileServerClient::Message(const std::string& strPayload) const {
    return MessageHeader(m_uPort, strPayload.size()).Bytes() + strPayload;
}

std::string FileServerClient::Exchange(const std::string& strPayload) {
    Send(Message(strPayload));
    return ReceiveReply();
}

std::string FileServerClient::ReceiveReply() {
    const std::string strHeader = Receive(34);
    if (strHeader.size() < 34) {
        throw std::runtime_error("closed without a reply");
    }
    MessageHeader expected(m_uPort, NumberAt(strHeader, 26));
    std::swap(expected.strSource, expected.strDestination);
    expected.uSequence += 1;
    expected.uParameter = 0;
    EXPECT_EQ(strHeader, expected.Bytes());
    return Receive(expected.uLength);
}

std::string Ask(std::uint16_t uPort, const std::string& strPayload) {
    FileServerClient client(uPort);
    EXPECT_EQ(client.Register(), 0);
    return client.Exchange(strPayload);
}

MessageHeader::MessageHeader(std::uint16_t uPort, std::uint64_t uMessageLength)
    : strSource(Number(4321, 2) + Number(8765, 2) + Number(0, 1)),
      strDestination(Number(0, 2) + Number(static_cast<std::uint16_t>(uPort - 8665), 2) + Number(0, 1)),
      uLength(uMessageLength) {}

std::string MessageHeader::Bytes() const {
    return strSource + strDestination + Number(uSequence) + Number(uParameter) + Number(uLength);
}
