// Programs may be started with closed standard descriptors (2>&-). The next file that such a program opens becomes its
// standard output or error, and gets its messages.
#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace vexposix {

// Call it before anything is opened. Reading or writing a closed descriptor still fails.
inline void KeepStandardDescriptorsFree() {
    for (const int nDescriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(nDescriptor, F_GETFD) < 0) {
            // The lowest free number, which is this one.
            static_cast<void>(open("/dev/null", nDescriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY));
        }
    }
}

}  // namespace vexposix
