#include "signing/FileBytes.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

#include "FileDescriptor.h"

namespace vextk {
namespace {

[[noreturn]] void ThrowErrno(int nErrno) {
    throw std::system_error(nErrno, std::generic_category());
}

}  // namespace

SecretText ReadFileBytes(int nDescriptor, size_t cbLimit) {
    struct stat status {};
    if (fstat(nDescriptor, &status) != 0) {
        ThrowErrno(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        ThrowErrno(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    }
    if (static_cast<std::uint64_t>(status.st_size) > cbLimit) {
        ThrowErrno(EFBIG);
    }
    const auto cbFile = static_cast<size_t>(status.st_size);
    SecretText bytes(cbFile);
    bytes.Resize(cbFile);
    size_t cbRead = 0;
    while (cbRead < cbFile) {
        const ssize_t cb = pread(nDescriptor, bytes.Data() + cbRead, cbFile - cbRead, static_cast<off_t>(cbRead));
        if (cb == 0) {
            break;
        }
        if (cb < 0 && errno != EINTR) {
            ThrowErrno(errno);
        }
        cbRead += cb > 0 ? static_cast<size_t>(cb) : 0;
    }
    bytes.Truncate(cbRead);
    return bytes;
}

SecretText ReadFileBytes(const std::string& strPath, size_t cbLimit) {
    const FileDescriptor file(open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file.IsOpen()) {
        ThrowErrno(errno);
    }
    return ReadFileBytes(file.Get(), cbLimit);
}

}  // namespace vextk
