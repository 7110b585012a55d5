#include "FileIdentity.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string_view>

#include "SystemError.h"

namespace tools {
namespace {

struct Free {
    void operator()(char* psz) const { std::free(psz); }
};

std::string RealPath(const std::string& strPath) {
    const std::unique_ptr<char, Free> pszReal(realpath(strPath.c_str(), nullptr));
    return pszReal ? pszReal.get() : "";
}

// "a/b/" of "a/b/c", "./" of "c".
std::string DirectoryOf(const std::string& strPath) {
    const std::size_t nSlash = strPath.rfind('/');
    return nSlash == std::string::npos ? "./" : strPath.substr(0, nSlash + 1);
}

std::string_view NameOf(std::string_view path) {
    const std::size_t nSlash = path.rfind('/');
    return nSlash == std::string_view::npos ? path : path.substr(nSlash + 1);
}

bool IsInProc(const std::string& strDirectory) {
    // Thousands of files are in one directory. A directory does not move to another file system during a run.
    thread_local std::string t_strLast;
    thread_local bool t_bLast = false;
    if (t_strLast != strDirectory) {
        struct statfs status = {};
        t_bLast = statfs(strDirectory.c_str(), &status) == 0 && status.f_type == PROC_SUPER_MAGIC;
        t_strLast = strDirectory;
    }
    return t_bLast;
}

std::optional<int> OwnDescriptor(const std::string& strDirectory, std::string_view name) {
    int nDescriptor = 0;
    const auto [pchEnd, error] = std::from_chars(name.data(), name.data() + name.size(), nDescriptor);
    if (error != std::errc() || pchEnd != name.data() + name.size() || nDescriptor < 0 ||
        RealPath(strDirectory) != RealPath("/proc/self/fd")) {
        return std::nullopt;
    }
    return nDescriptor;
}

// A mode of 0: it does not exist.
struct stat StatusOf(const std::string& strPath, int nFlags) {
    constexpr struct stat kNone = {};
    struct stat status = {};
    return fstatat(AT_FDCWD, strPath.c_str(), &status, nFlags) == 0 ? status : kNone;
}

// The target of a symbolic link; nothing if it is not one any more.
std::optional<std::string> LinkOf(const std::string& strPath) {
    std::array<char, PATH_MAX> target{};
    const ssize_t cb = readlink(strPath.c_str(), target.data(), target.size());
    if (cb < 0) {
        return std::nullopt;
    }
    return std::string(target.data(), static_cast<std::size_t>(cb));
}

// Fills status for the nearest existing directory above the path. Returns the rest of the path.
std::string FindDirectory(const std::string& strPath, struct stat& status) {
    std::filesystem::path directory = strPath;
    std::filesystem::path rest;
    do {
        rest = directory.filename() / rest;
        directory = directory.parent_path();
    } while (stat(directory.empty() ? "." : directory.c_str(), &status) != 0 && directory.has_relative_path());
    return rest.lexically_normal().string();
}

std::optional<int> DescriptorOf(const std::string& strName) {
    try {
        return ResolveOutput(strName).descriptor;
    } catch (const std::system_error&) {
        return std::nullopt;  // too many links: whoever opens it gets the reason
    }
}

}  // namespace

std::string ShownName(const std::string& strName, const char* pszStandardStream) {
    return strName == kStandardStream ? pszStandardStream : strName;
}

bool IsStandardInput(const std::string& strName) {
    return strName == kStandardStream || DescriptorOf(strName) == STDIN_FILENO;
}

bool IsStandardStream(const std::string& strName) {
    return DescriptorOf(strName).value_or(INT_MAX) <= STDERR_FILENO;
}

OutputName ResolveOutput(const std::string& strPath) {
    constexpr int kMostLinks = 40;
    if (strPath == kStandardStream) {
        return {strPath, STDOUT_FILENO};
    }
    std::string strAt = strPath;
    for (int nLink = 0; nLink <= kMostLinks; ++nLink) {
        const std::string strDirectory = DirectoryOf(strAt);
        if (IsInProc(strDirectory)) {
            return {strAt, OwnDescriptor(strDirectory, NameOf(strAt)), true, StatusOf(strAt, 0)};
        }
        const struct stat status = StatusOf(strAt, AT_SYMLINK_NOFOLLOW);
        const std::optional<std::string> link = S_ISLNK(status.st_mode) ? LinkOf(strAt) : std::nullopt;
        if (!link) {
            return {strAt, std::nullopt, false, status};
        }
        strAt = link->starts_with('/') ? *link : strDirectory + *link;
    }
    ThrowSystemError(ELOOP, strPath);
}

FileIdentity FileIdentity::OfOutput(const std::string& strPath) {
    return FileIdentity(ResolveOutput(strPath));
}

FileIdentity FileIdentity::OfInput(const std::string& strPath) {
    return strPath == kStandardStream ? FileIdentity(OutputName{strPath, STDIN_FILENO})
                                      : FileIdentity(ResolveOutput(strPath));
}

FileIdentity::FileIdentity(const OutputName& name) : m_descriptor(name.descriptor) {
    struct stat status = name.status;
    if (name.descriptor && fstat(*name.descriptor, &status) != 0) {
        return;
    }
    m_nMode = status.st_mode;
    if (m_nMode == 0) {
        m_strName = FindDirectory(name.strPath, status);
    }
    m_bKnown = true;
    m_nDevice = status.st_dev;
    m_nInode = status.st_ino;
}

bool FileIdentity::Equals(const FileIdentity& other) const {
    return m_bKnown && other.m_bKnown && m_nDevice == other.m_nDevice && m_nInode == other.m_nInode &&
           m_strName == other.m_strName;
}

bool FileIdentity::IsSameFile(const FileIdentity& other) const {
    return Equals(other) && (m_nMode == 0 || S_ISREG(m_nMode) || S_ISBLK(m_nMode));
}

bool FileIdentity::IsSameOutput(const FileIdentity& other) const {
    return (m_descriptor && m_descriptor == other.m_descriptor) || (Equals(other) && !S_ISCHR(m_nMode));
}

std::size_t FileIdentity::Hash() const {
    constexpr std::size_t kFactor = 31;
    if (!m_bKnown) {
        return static_cast<std::size_t>(m_descriptor.value_or(-1));
    }
    return (std::hash<std::string>()(m_strName) * kFactor + m_nInode) * kFactor + m_nDevice;
}

}  // namespace tools
