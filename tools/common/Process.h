// What a program does first.
#pragma once

#include <clocale>
#include <csignal>

#include "posix/StandardDescriptors.h"

namespace tools {

// Call it before anything is opened, and before a message is made: messages are in the locale's encoding.
inline void SetUpProcess() {
    vexposix::KeepStandardDescriptorsFree();
    static_cast<void>(std::setlocale(LC_CTYPE, ""));
    // Writes to a reader that has gone, and beyond RLIMIT_FSIZE, then return errors.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
}

}  // namespace tools
