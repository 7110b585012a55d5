#include "Input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "common/FileIdentity.h"
#include "posix/FileIo.h"

namespace vexsign {
namespace {

[[noreturn]] void FailToRead(const std::string& strName) {
    throw std::runtime_error(strName + ": " + std::strerror(errno));
}

}  // namespace

Input::Input(const std::string& strName)
    : m_strName(tools::ShownName(strName, "standard input")), m_nDescriptor(STDIN_FILENO) {
    if (strName == tools::kStandardStream) {
        return;
    }
    m_file = vexposix::FileDescriptor(open(strName.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!m_file.IsOpen()) {
        FailToRead(m_strName);
    }
    m_nDescriptor = m_file.Get();
}

std::uint64_t Input::BytesLeft() const {
    struct stat status = {};
    if (fstat(m_nDescriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        return 0;
    }
    const off_t nPosition = lseek(m_nDescriptor, 0, SEEK_CUR);
    return nPosition >= 0 && nPosition < status.st_size ? static_cast<std::uint64_t>(status.st_size - nPosition) : 0;
}

std::size_t Input::GoodBuffer(std::size_t cbMost) const {
    constexpr std::size_t kLeast = 4096;
    struct stat status = {};
    if (fstat(m_nDescriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        return cbMost;
    }
    // One byte more finds the end.
    return static_cast<std::size_t>(std::clamp<std::uint64_t>(BytesLeft() + 1, std::min(kLeast, cbMost), cbMost));
}

std::size_t Input::Read(char* pchBuffer, std::size_t cbBuffer) {
    std::size_t cbRead = 0;
    while (cbRead < cbBuffer && !m_bEnd) {
        const ssize_t cb = vexposix::ReadSome(m_nDescriptor, pchBuffer + cbRead, cbBuffer - cbRead);
        if (cb < 0) {
            FailToRead(m_strName);
        }
        m_bEnd = cb == 0;
        cbRead += static_cast<std::size_t>(cb);
    }
    return cbRead;
}

}  // namespace vexsign
