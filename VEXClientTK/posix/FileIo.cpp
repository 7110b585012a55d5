#include "posix/FileIo.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace vexposix {
namespace {

// step(cbDone) transfers the bytes after the first cbDone ones. It returns what read or write returns.
template <typename Step>
Transfer TransferAll(std::size_t cb, Step step) {
    Transfer transfer;
    while (transfer.cb < cb) {
        const ssize_t nResult = step(transfer.cb);
        if (nResult > 0) {
            transfer.cb += static_cast<std::size_t>(nResult);
        } else if (nResult == 0) {
            break;
        } else if (errno != EINTR) {
            transfer.nErrno = errno;
            break;
        }
    }
    return transfer;
}

Transfer CompleteOrFailed(Transfer transfer, std::size_t cbWanted) {
    if (transfer.cb < cbWanted && transfer.nErrno == 0) {
        transfer.nErrno = EIO;
    }
    return transfer;
}

// Waits until the descriptor can take or give bytes, or reports an error.
void WaitUntilReady(int nDescriptor, short nEvents) {
    pollfd waiting = {nDescriptor, nEvents, 0};
    static_cast<void>(poll(&waiting, 1, -1));
}

}  // namespace

Transfer ReadAt(int nDescriptor, void* pBuffer, std::size_t cbBuffer, off_t nPosition) noexcept {
    return TransferAll(cbBuffer, [=](std::size_t cbDone) {
        return pread(nDescriptor, static_cast<char*>(pBuffer) + cbDone, cbBuffer - cbDone,
                     nPosition + static_cast<off_t>(cbDone));
    });
}

Transfer WriteAt(int nDescriptor, const void* pData, std::size_t cbData, off_t nPosition) noexcept {
    const Transfer transfer = TransferAll(cbData, [=](std::size_t cbDone) {
        return pwrite(nDescriptor, static_cast<const char*>(pData) + cbDone, cbData - cbDone,
                      nPosition + static_cast<off_t>(cbDone));
    });
    return CompleteOrFailed(transfer, cbData);
}

ssize_t ReadSome(int nDescriptor, void* pBuffer, std::size_t cbBuffer) noexcept {
    for (;;) {
        const ssize_t cb = read(nDescriptor, pBuffer, cbBuffer);
        if (cb < 0 && errno == EAGAIN) {
            WaitUntilReady(nDescriptor, POLLIN);
        } else if (cb >= 0 || errno != EINTR) {
            return cb;
        }
    }
}

int WriteAll(int nDescriptor, std::string_view bytes) noexcept {
    const Transfer transfer = TransferAll(bytes.size(), [=](std::size_t cbDone) {
        ssize_t cb = write(nDescriptor, bytes.data() + cbDone, bytes.size() - cbDone);
        while (cb < 0 && errno == EAGAIN) {
            WaitUntilReady(nDescriptor, POLLOUT);
            cb = write(nDescriptor, bytes.data() + cbDone, bytes.size() - cbDone);
        }
        return cb;
    });
    return CompleteOrFailed(transfer, bytes.size()).nErrno;
}

int SetSize(int nDescriptor, off_t cbSize) noexcept {
    while (ftruncate(nDescriptor, cbSize) != 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

int GetSize(int nDescriptor, off_t& cbSize) noexcept {
    const off_t cbFile = lseek(nDescriptor, 0, SEEK_END);
    if (cbFile < 0) {
        return errno;
    }
    cbSize = cbFile;
    return 0;
}

}  // namespace vexposix
