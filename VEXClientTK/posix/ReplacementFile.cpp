#include "posix/ReplacementFile.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <utility>

namespace vexposix {

ReplacementFile::ReplacementFile(int nDirectory, std::string strName, mode_t nMode) noexcept
    : m_nDirectory(nDirectory),
      m_strName(std::move(strName)),
      m_file(openat(nDirectory, m_strName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, nMode)),
      m_bThere(m_file.IsOpen()) {}

ReplacementFile::~ReplacementFile() {
    if (m_bThere) {
        unlinkat(m_nDirectory, m_strName.c_str(), 0);
    }
}

int ReplacementFile::MoveTo(const char* pszTarget) noexcept {
    // EINVAL: the file system does not support fsync.
    if (fsync(m_file.Get()) != 0 && errno != EINVAL) {
        return errno;
    }
    return MoveSyncedTo(pszTarget);
}

int ReplacementFile::MoveSyncedTo(const char* pszTarget) noexcept {
    if (const int nErrno = m_file.Close(); nErrno != 0) {
        return nErrno;
    }
    if (renameat(m_nDirectory, m_strName.c_str(), m_nDirectory, pszTarget) != 0) {
        return errno;
    }
    m_bThere = false;
    return 0;
}

}  // namespace vexposix
