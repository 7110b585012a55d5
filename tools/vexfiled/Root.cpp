#include "Root.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>
#include <vector>

#include "posix/PlatformError.h"

namespace vexfiled {
namespace {

using vexposix::FileDescriptor;
using vexposix::OpenedFile;

// Other processes may create or remove a directory between two steps. This limits the attempts.
constexpr int kMaxRounds = 100;

Refusal RefusalOf(int nErrno) {
    return {vexposix::ErrorFromErrno(nErrno), std::generic_category().message(nErrno)};
}

Refusal Busy() {
    return {ERROR_SHARING_VIOLATION, "another process keeps creating and removing it"};
}

Refusal SymbolicLink() {
    return {ERROR_ACCESS_DENIED, "a symbolic link"};
}

std::variant<FileDescriptor, Refusal> EnterDirectory(int nParent, const char* pszName) {
    for (int nRound = 0; nRound < kMaxRounds; ++nRound) {
        FileDescriptor descriptor(openat(nParent, pszName, O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (descriptor.IsOpen()) {
            struct stat status {};
            if (fstat(descriptor.Get(), &status) != 0) {
                return RefusalOf(errno);
            }
            if (S_ISLNK(status.st_mode)) {
                return SymbolicLink();
            }
            if (!S_ISDIR(status.st_mode)) {
                return Refusal{ERROR_PATH_NOT_FOUND, "a parent is not a directory"};
            }
            return descriptor;
        }
        if (errno == ENOENT && mkdirat(nParent, pszName, S_IRWXU) == 0) {
            continue;
        }
        if (errno != ENOENT && errno != EEXIST && errno != EINTR) {
            return RefusalOf(errno);
        }
    }
    return Busy();
}

// Why a file was not opened or created.
Refusal RefusalOfFile(int nErrno) {
    switch (nErrno) {
        case ELOOP:
            return SymbolicLink();
        case EINVAL:
            return {ERROR_ACCESS_DENIED, "not a regular file"};
        case EMLINK:
            return {ERROR_ACCESS_DENIED, "a file with hard links"};
        case ENOENT:
            return {ERROR_PATH_NOT_FOUND, "its directory was removed"};
        case EBUSY:
            return Busy();
        default:
            return RefusalOf(nErrno);
    }
}

}  // namespace

Root::Root(const std::string& strPath) : m_descriptor(open(strPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    struct stat status {};
    if (!m_descriptor.IsOpen() || fstat(m_descriptor.Get(), &status) != 0 ||
        faccessat(m_descriptor.Get(), ".", W_OK | X_OK, AT_EACCESS) != 0) {
        throw std::system_error(errno, std::generic_category(), strPath);
    }
    m_owner = status.st_uid;
    m_bWritableByOthers = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

std::variant<OpenedFile, Refusal> Root::Open(std::string_view strName) const {
    auto split = SplitName(strName);
    if (auto* pRefusal = std::get_if<Refusal>(&split)) {
        return std::move(*pRefusal);
    }
    const auto& components = std::get<std::vector<std::string>>(split);
    FileDescriptor directory;
    int nParent = m_descriptor.Get();
    for (std::size_t i = 0; i + 1 < components.size(); ++i) {
        auto entered = EnterDirectory(nParent, components[i].c_str());
        if (auto* pRefusal = std::get_if<Refusal>(&entered)) {
            return std::move(*pRefusal);
        }
        directory = std::move(std::get<FileDescriptor>(entered));
        nParent = directory.Get();
    }
    OpenedFile file = OpenOrCreateFile(nParent, components.back().c_str(), vexposix::kConfined);
    if (!file.descriptor.IsOpen()) {
        return RefusalOfFile(file.nErrno);
    }
    return file;
}

}  // namespace vexfiled
