// A client of the file server that can do wrong.
#pragma once

#include <cstdint>
#include <string>

#include "posix/FileDescriptor.h"

class FileServerClient {
public:
    // Connects, and does nothing else yet.
    explicit FileServerClient(std::uint16_t uPort);

    // The status byte; -1 when the server closed without one.
    int Register();

    void Send(const std::string& strBytes);
    // Fewer bytes when the server closes before. Throws when nothing comes for a minute.
    std::string Receive(std::size_t cb);
    // Waits for the server to close; false when it sends something instead.
    bool IsClosedByServer() { return Receive(1).empty(); }

    // Ends the connection with a reset, as that of a process that is killed with bytes unread.
    void Reset();

    // A message with a header as it should be.
    std::string Message(const std::string& strPayload) const;

    // Sends a message; receives the reply, checks its header and returns its payload.
    std::string Exchange(const std::string& strPayload);
    std::string ReceiveReply();

private:
    std::uint16_t m_uPort;
    vexposix::FileDescriptor m_socket;
};

// One request on a connection of its own.
std::string Ask(std::uint16_t uPort, const std::string& strPayload);

// A message header. The destination: session 0 and the object whose port it is.
struct MessageHeader {
    std::string strSource;       // 5 bytes
    std::string strDestination;  // 5 bytes
    std::uint64_t uSequence = 1000;
    std::uint64_t uParameter = 4;
    std::uint64_t uLength = 0;

    MessageHeader(std::uint16_t uPort, std::uint64_t uMessageLength);
    std::string Bytes() const;
};
