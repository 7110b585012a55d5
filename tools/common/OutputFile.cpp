#include "OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "FileIdentity.h"
#include "SystemError.h"

namespace tools {
namespace {

constexpr mode_t kRights = 0777;
constexpr mode_t kGroupRights = 0070;
constexpr mode_t kNewFile = 0666;
constexpr mode_t kOwnerOnly = 0600;

// Gives the new file the owner, group and rights of the old one. A new group must not get the old group's rights.
void TakeOver(const struct stat& old, int nDescriptor, const std::string& strPath) {
    mode_t nRights = old.st_mode & kRights;
    if (fchown(nDescriptor, old.st_uid, old.st_gid) != 0 &&
        fchown(nDescriptor, static_cast<uid_t>(-1), old.st_gid) != 0) {
        nRights &= ~kGroupRights;
    }
    if (fchmod(nDescriptor, nRights) != 0) {
        ThrowSystemError(errno, strPath);
    }
}

}  // namespace

OutputFile::OutputFile(const std::string& strPath) : m_strName(ShownName(strPath, "standard output")) {
    const OutputName name = ResolveOutput(strPath);
    m_strPath = name.strPath;
    struct stat status = {};
    const bool bThere = !name.descriptor && stat(m_strPath.c_str(), &status) == 0;
    if (name.descriptor) {
        m_direct = vexposix::FileDescriptor(fcntl(*name.descriptor, F_DUPFD_CLOEXEC, 0));
    } else if (bThere && (!S_ISREG(status.st_mode) || name.bInProc)) {
        m_direct = vexposix::FileDescriptor(open(m_strPath.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));
    } else if (bThere) {
        if (faccessat(AT_FDCWD, m_strPath.c_str(), W_OK, AT_EACCESS) != 0) {
            ThrowSystemError(errno, m_strName);
        }
        m_temporary.emplace(m_strPath, kOwnerOnly);
        TakeOver(status, m_temporary->Descriptor(), m_strName);
    } else if (m_strPath.empty() || m_strPath.ends_with('/')) {
        ThrowSystemError(m_strPath.empty() ? ENOENT : EISDIR, m_strName);
    } else if (errno != ENOENT) {
        ThrowSystemError(errno, m_strName);
    } else {
        m_temporary.emplace(m_strPath, kNewFile);
    }
    if (Descriptor() < 0) {
        ThrowSystemError(errno, m_strName);
    }
}

void OutputFile::Commit() {
    if (m_temporary) {
        m_temporary->MoveTo(m_strPath);
    } else {
        CommitSynced();
    }
}

void OutputFile::CommitSynced() {
    if (m_temporary) {
        m_temporary->MoveSyncedTo(m_strPath);
    } else if (const int nError = m_direct.Close(); nError != 0) {
        ThrowSystemError(nError, m_strName);
    }
}

}  // namespace tools
