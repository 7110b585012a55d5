#include "posix/OutputBuffer.h"

#include <cerrno>

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

}  // namespace vexposix
