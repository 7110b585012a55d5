// The server as a service of systemd: a listening socket from it (socket activation) and messages to it. Both are
// documented protocols of environment variables (sd_listen_fds(3), sd_notify(3)). Without these variables nothing
// happens.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "posix/FileDescriptor.h"

namespace vexfiled {

struct PassedSocket {
    vexposix::FileDescriptor descriptor;
    std::uint16_t uPort;
};

// The listening socket that the service manager has opened for this process. Removes the variables, so a second call
// returns nothing. Throws std::runtime_error if there are several, or if it does not listen on 127.0.0.1 for TCP.
std::optional<PassedSocket> TakePassedSocket();

// Sends lines such as "READY=1" to the service manager. Returns errno.
int TellServiceManager(const std::string& strLines);

}  // namespace vexfiled
