#include "Root.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>
#include <vector>

#include "posix/Directories.h"
#include "posix/PlatformError.h"

namespace vexfiled {
namespace {

using vexposix::FileDescriptor;
using vexposix::OpenedFile;

Refusal RefusalOf(int nErrno) {
    switch (nErrno) {
        case ELOOP:
            return {ERROR_ACCESS_DENIED, "a symbolic link"};
        case EBUSY:
            return {ERROR_SHARING_VIOLATION, "another process keeps creating and removing it"};
        default:
            return {vexposix::ErrorFromErrno(nErrno), std::generic_category().message(nErrno)};
    }
}

// Why a directory of the name was not entered.
Refusal RefusalOfDirectory(int nErrno) {
    return nErrno == ENOTDIR ? Refusal{ERROR_PATH_NOT_FOUND, "a parent is not a directory"} : RefusalOf(nErrno);
}

// Why a file was not opened or created.
Refusal RefusalOfFile(int nErrno) {
    switch (nErrno) {
        case EINVAL:
            return {ERROR_ACCESS_DENIED, "not a regular file"};
        case EMLINK:
            return {ERROR_ACCESS_DENIED, "a file with hard links"};
        case ENOENT:
            return {ERROR_PATH_NOT_FOUND, "its directory was removed"};
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
        vexposix::EnteredDirectory entered = vexposix::EnterDirectory(nParent, components[i].c_str());
        if (!entered.descriptor.IsOpen()) {
            return RefusalOfDirectory(entered.nErrno);
        }
        directory = std::move(entered.descriptor);
        nParent = directory.Get();
    }
    OpenedFile file = OpenOrCreateFile(nParent, components.back().c_str(), vexposix::kConfined);
    if (!file.descriptor.IsOpen()) {
        return RefusalOfFile(file.nErrno);
    }
    return file;
}

}  // namespace vexfiled
