#include "posix/LockFile.h"

#include <sys/file.h>

#include <cerrno>

namespace vexposix {

int LockFile(int nDescriptor, int nKind, std::chrono::microseconds maxWait) noexcept {
    int nErrno = EWOULDBLOCK;
    TryFor(maxWait, [&] {
        nErrno = flock(nDescriptor, nKind | LOCK_NB) == 0 ? 0 : errno;
        return nErrno != EWOULDBLOCK && nErrno != EINTR;
    });
    return nErrno == EINTR ? EWOULDBLOCK : nErrno;
}

}  // namespace vexposix
