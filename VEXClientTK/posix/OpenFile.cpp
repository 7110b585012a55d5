#include "posix/OpenFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

namespace vexposix {
namespace {

constexpr mode_t kOwnerOnly = 0600;
constexpr mode_t kAllRights = 0777;
// A signal may interrupt an attempt, and somebody else may create and remove the file between two attempts. Neither
// happens this often unless somebody does it on purpose.
constexpr int kMaxRounds = 100;

// O_NONBLOCK: a pipe or device of that name must not make the caller wait. Regular files ignore it.
int OpenFlags(const FileRules& rules) {
    return rules.nAccess | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (rules.bFollowsLink ? 0 : O_NOFOLLOW);
}

bool IsAllowed(Owner owner, uid_t uid) {
    return owner == Owner::kAnybody || (owner == Owner::kUserOrRoot && uid == 0) || uid == geteuid();
}

// Returns errno.
int CheckRules(int nDescriptor, const struct stat& status, const FileRules& rules) {
    if (!S_ISREG(status.st_mode)) {
        return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    }
    if (!rules.bMayHaveLinks && status.st_nlink > 1) {
        return EMLINK;
    }
    if (!IsAllowed(rules.owner, status.st_uid)) {
        return EPERM;
    }
    const bool bChange = rules.bMadePrivate && (status.st_mode & kAllRights) != kOwnerOnly;
    return !bChange || fchmod(nDescriptor, kOwnerOnly) == 0 ? 0 : errno;
}

OpenedFile NotOpened(int nErrno) {
    return {FileDescriptor(), false, nErrno};
}

OpenedFile Checked(FileDescriptor descriptor, const FileRules& rules) {
    struct stat status {};
    if (fstat(descriptor.Get(), &status) != 0) {
        return NotOpened(errno);
    }
    if (const int nErrno = CheckRules(descriptor.Get(), status, rules); nErrno != 0) {
        return NotOpened(nErrno);
    }
    return {std::move(descriptor), false, 0, static_cast<std::size_t>(status.st_size)};
}

OpenedFile OpenOnce(int nDirectory, const char* pszName, const FileRules& rules) {
    FileDescriptor descriptor(openat(nDirectory, pszName, OpenFlags(rules)));
    return descriptor.IsOpen() ? Checked(std::move(descriptor), rules) : NotOpened(errno);
}

// A file without a name, in the directory of that name. Nobody else can open it yet. Not open: the file system has no
// such files.
FileDescriptor MakeNameless(int nDirectory, std::string_view name) {
    const std::string strParent(name.substr(0, name.rfind('/') + 1));
    return FileDescriptor(
        openat(nDirectory, strParent.empty() ? "." : strParent.c_str(), O_RDWR | O_CLOEXEC | O_TMPFILE, kOwnerOnly));
}

bool GiveName(const FileDescriptor& nameless, int nDirectory, const char* pszName) {
    std::array<char, 32> szNameless{};
    static_cast<void>(std::snprintf(szNameless.data(), szNameless.size(), "/proc/self/fd/%d", nameless.Get()));
    return linkat(AT_FDCWD, szNameless.data(), nDirectory, pszName, AT_SYMLINK_FOLLOW) == 0;
}

// On failure the descriptor is not open, and nErrno says why.
OpenedFile Create(int nDirectory, const char* pszName, const FileRules& rules,
                  const std::function<void(int)>& fnBeforeName) {
    if (fnBeforeName) {
        if (FileDescriptor nameless = MakeNameless(nDirectory, pszName); nameless.IsOpen()) {
            fnBeforeName(nameless.Get());
            if (GiveName(nameless, nDirectory, pszName)) {
                return {std::move(nameless), true};
            }
        }
    }
    FileDescriptor created(openat(nDirectory, pszName, OpenFlags(rules) | O_CREAT | O_EXCL, kOwnerOnly));
    if (!created.IsOpen()) {
        return NotOpened(errno);
    }
    if (!fnBeforeName) {
        return {std::move(created), true};
    }
    fnBeforeName(created.Get());
    const bool bEmpty = lseek(created.Get(), 0, SEEK_END) == 0;
    return {std::move(created), bEmpty};
}

}  // namespace

OpenedFile OpenFile(int nDirectory, const char* pszName, const FileRules& rules) noexcept {
    for (int nRound = 0; nRound < kMaxRounds; ++nRound) {
        OpenedFile file = OpenOnce(nDirectory, pszName, rules);
        if (file.nErrno != EINTR) {
            return file;
        }
    }
    return NotOpened(EBUSY);
}

// An existing file is opened without O_CREAT: in directories like /tmp, the kernel refuses O_CREAT for other people's
// files.
OpenedFile OpenOrCreateFile(int nDirectory, const char* pszName, const FileRules& rules,
                            const std::function<void(int)>& fnBeforeName) {
    for (int nRound = 0; nRound < kMaxRounds; ++nRound) {
        OpenedFile existing = OpenOnce(nDirectory, pszName, rules);
        if (existing.nErrno == EINTR) {
            continue;
        }
        if (existing.nErrno != ENOENT) {
            return existing;
        }
        OpenedFile created = Create(nDirectory, pszName, rules, fnBeforeName);
        if (created.descriptor.IsOpen() || (created.nErrno != EEXIST && created.nErrno != EINTR)) {
            return created;
        }
    }
    return NotOpened(EBUSY);
}

Transfer ReadWhole(const OpenedFile& file, std::size_t cbLimit, const std::function<char*(std::size_t)>& fnRoom) {
    if (file.nErrno != 0) {
        return {0, file.nErrno};
    }
    if (file.cbSize > cbLimit) {
        return {0, EFBIG};
    }
    return ReadAt(file.descriptor.Get(), fnRoom(file.cbSize), file.cbSize, 0);
}

}  // namespace vexposix
