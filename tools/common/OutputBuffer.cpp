#include "OutputBuffer.h"

#include <unistd.h>

#include <cerrno>

namespace tools {

void OutputBuffer::Flush() {
    std::string_view rest = m_strBytes;
    while (!rest.empty()) {
        const ssize_t cbWritten = write(m_nDescriptor, rest.data(), rest.size());
        if (cbWritten >= 0) {
            rest.remove_prefix(static_cast<std::size_t>(cbWritten));
        } else if (errno == EPIPE) {
            m_strBytes.clear();
            throw OutputClosed();
        } else if (errno != EINTR) {
            const int nError = errno;
            m_strBytes.clear();
            throw std::system_error(nError, std::generic_category(), m_strName);
        }
    }
    m_strBytes.clear();
}

}  // namespace tools
