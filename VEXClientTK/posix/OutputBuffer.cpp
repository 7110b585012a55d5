#include "posix/OutputBuffer.h"

#include <fcntl.h>

#include <cerrno>

#include "posix/FileDescriptor.h"
#include "posix/FileIo.h"

namespace vexposix {

void OutputBuffer::Flush() {
    const int nErrno = WriteAll(m_nDescriptor, m_strBytes);
    m_strBytes.clear();
    if (nErrno == EPIPE) {
        throw OutputClosed();
    }
    if (nErrno != 0) {
        throw std::system_error(nErrno, std::generic_category(), m_strName);
    }
}

void OutputBuffer::Finish() {
    Flush();
    FileDescriptor copy(fcntl(m_nDescriptor, F_DUPFD_CLOEXEC, 0));
    const int nErrno = copy.IsOpen() ? copy.Close() : 0;
    if (nErrno != 0) {
        throw std::system_error(nErrno, std::generic_category(), m_strName);
    }
}

}  // namespace vexposix
