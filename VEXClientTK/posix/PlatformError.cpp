#include "posix/PlatformError.h"

#include <cerrno>

namespace vexposix {

DWORD ErrorFromErrno(int nErrno) noexcept {
    switch (nErrno) {
        case 0:
            return ERROR_SUCCESS;
        case ENOENT:
            return ERROR_FILE_NOT_FOUND;
        case ENOTDIR:
            return ERROR_PATH_NOT_FOUND;
        case EMFILE:
        case ENFILE:
            return ERROR_TOO_MANY_OPEN_FILES;
        case EACCES:
        case EPERM:
        case EISDIR:
        case ELOOP:   // a symbolic link, which is not followed
        case ENXIO:   // a socket, or a device that does not exist
        case ENODEV:  // likewise
            return ERROR_ACCESS_DENIED;
        case EBADF:
            return ERROR_INVALID_HANDLE;
        case ENOMEM:
            return ERROR_NOT_ENOUGH_MEMORY;
        case EROFS:
            return ERROR_WRITE_PROTECT;
        case EAGAIN:  // a lease that is being broken
        case EBUSY:
        case ETXTBSY:
            return ERROR_SHARING_VIOLATION;
        case EINVAL:
        case EFAULT:
            return ERROR_INVALID_PARAMETER;
        case ENOSPC:
        case EDQUOT:
            return ERROR_DISK_FULL;
        case EEXIST:
            return ERROR_ALREADY_EXISTS;
        case ENAMETOOLONG:
            return ERROR_FILENAME_EXCED_RANGE;
        case EFBIG:
        case EOVERFLOW:
            return ERROR_FILE_TOO_LARGE;
        case EILSEQ:
            return ERROR_NO_UNICODE_TRANSLATION;
        case EIO:
            return ERROR_IO_DEVICE;
        default:
            return ERROR_GEN_FAILURE;
    }
}

DWORD ErrorFromOpening(int nErrno) noexcept {
    switch (nErrno) {
        case ENOENT:
            return ERROR_PATH_NOT_FOUND;
        case EINVAL:  // not a regular file
        case EMLINK:  // hard links
            return ERROR_ACCESS_DENIED;
        default:
            return ErrorFromErrno(nErrno);
    }
}

}  // namespace vexposix
