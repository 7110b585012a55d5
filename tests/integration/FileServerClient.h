// A client of the file server that can also break the protocol.
#pragma once

#include <cstdint>
#include <string>

#include "posix/FileDescriptor.h"

class FileServerClient {
public:
    // Only connects.
    explicit FileServerClient(std::uint16_t uPort);

    // Returns the status byte, or -1 when the server closed without one.
    int Register();

    void Send(const std::string& strBytes);
    // Returns fewer bytes when the server closes before. Throws when nothing comes for a minute.
    std::string Receive(std::size_t cb);
    // Waits until the server closes. Returns false when it sends something instead.
    bool IsClosedByServer() { return Receive(1).empty(); }

    // Ends the connection with a reset, like a process that is killed before it has read all bytes.
    void Reset();

    // Builds a message with a correct header.
    std::string Message(const std::string& strPayload) const;

    // Sends a message; receives the reply, checks its header and returns its payload.
    std::string Exchange(const std::string& strPayload);
    std::string ReceiveReply();

private:
    std::uint16_t m_uPort;
    vexposix::FileDescriptor m_socket;
};

// Sends one request on a new connection.
std::string Ask(std::uint16_t uPort, const std::string& strPayload);

// A message header. The destination is the object of session 0 that belongs to the port.
struct MessageHeader {
    std::string strSource;       // 5 bytes
    std::string strDestination;  // 5 bytes
    std::uint64_t uSequence = 1000;
    std::uint64_t uParameter = 4;
    std::uint64_t uLength = 0;

    MessageHeader(std::uint16_t uPort, std::uint64_t uMessageLength);
    std::string Bytes() const;
};
