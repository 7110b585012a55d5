// A TCP connection whose every operation ends at a deadline. Slow peers and signals cannot extend it.
#pragma once

#include <chrono>
#include <cstddef>
#include <span>
#include <string>

#include "posix/FileDescriptor.h"
#include "timestamp/Fault.h"

namespace vextimestamp {

using Deadline = std::chrono::steady_clock::time_point;

// A part of the time that is left: 1 of cParts.
Deadline PartOf(Deadline deadline, std::size_t cParts);

// The functions throw Fault. Its text has no address: the caller knows what the user calls it.
class Connection {
public:
    // Tries all addresses of the host. Each gets an equal part of the time that is left.
    Connection(const std::string& strHost, const std::string& strPort, Deadline deadline);

    void Send(std::span<const char> bytes, Deadline deadline) const;

    // Waits for bytes and returns how many came; 0: the other end has closed the connection.
    std::size_t Receive(std::span<char> buffer, Deadline deadline) const;

private:
    vexposix::FileDescriptor m_socket;
};

}  // namespace vextimestamp
