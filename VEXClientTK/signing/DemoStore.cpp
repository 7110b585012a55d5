#include "signing/DemoStore.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <system_error>
#include <vector>

#include "FileDescriptor.h"
#include "signing/DemoCertificates.h"
#include "signing/Failure.h"
#include "signing/FileBytes.h"
#include "signing/Store.h"

namespace vextk {
namespace {

constexpr const char* kStoreName = "demo.pem";
constexpr const char* kNewStoreName = "demo.pem.new";
constexpr const char* kLockName = "demo.lock";
constexpr size_t kLargestStore = 1 << 20;

[[noreturn]] void Fail(const std::string& strWhat, int nErrno) {
    throw Failure(VCTK_E_DEMO_STORE, strWhat + ": " + std::generic_category().message(nErrno));
}

std::string HomeDirectory() {
    if (const char* pszHome = std::getenv("HOME"); pszHome != nullptr && *pszHome == '/') {
        return pszHome;
    }
    std::vector<char> buffer(1 << 14);
    passwd entry{};
    passwd* pFound = nullptr;
    getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &pFound);
    if (pFound == nullptr || pFound->pw_dir == nullptr || *pFound->pw_dir != '/') {
        throw Failure(VCTK_E_DEMO_STORE, "neither XDG_DATA_HOME nor HOME names a directory");
    }
    return pFound->pw_dir;
}

// A relative XDG_DATA_HOME counts as none, as the XDG Base Directory rules ask.
std::string StoreDirectory() {
    const char* pszData = std::getenv("XDG_DATA_HOME");
    const std::string strData = pszData != nullptr && *pszData == '/' ? pszData : HomeDirectory() + "/.local/share";
    return strData + "/vex-client-toolkit";
}

void MakeDirectories(const std::string& strPath) {
    for (size_t nEnd = strPath.find('/', 1);; nEnd = strPath.find('/', nEnd + 1)) {
        const std::string strPart = strPath.substr(0, nEnd);
        if (mkdir(strPart.c_str(), 0700) != 0 && errno != EEXIST) {
            Fail(strPart, errno);
        }
        if (nEnd == std::string::npos) {
            return;
        }
    }
}

// Checks that a file or directory is the user's own and takes everybody else's access away.
void MakePrivate(int nDescriptor, mode_t mode, const std::string& strName) {
    struct stat status {};
    if (fstat(nDescriptor, &status) != 0) {
        Fail(strName, errno);
    }
    if (status.st_uid != geteuid()) {
        Fail(strName + " belongs to another user", EPERM);
    }
    if ((status.st_mode & 0777) != mode && fchmod(nDescriptor, mode) != 0) {
        Fail(strName, errno);
    }
}

class DemoDirectory {
public:
    DemoDirectory() : m_strPath(StoreDirectory()) {
        MakeDirectories(m_strPath);
        m_directory = FileDescriptor(open(m_strPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!m_directory.IsOpen()) {
            Fail(m_strPath, errno);
        }
        MakePrivate(m_directory.Get(), 0700, m_strPath);
    }

    // The store's identities; nothing when there is no store, or one that has to be made anew.
    std::optional<Identities> Read() const {
        const FileDescriptor file(
            openat(m_directory.Get(), kStoreName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!file.IsOpen()) {
            if (errno == ENOENT) {
                return std::nullopt;
            }
            Fail(Path(kStoreName), errno);
        }
        MakePrivate(file.Get(), 0600, Path(kStoreName));
        try {
            Identities identities = ReadIdentities(ReadFileBytes(file.Get(), kLargestStore).View(), nullptr);
            const std::time_t now = std::time(nullptr);
            const bool bUsable = identities.size() == 2 &&
                                 std::all_of(identities.begin(), identities.end(), [now](const IdentityPtr& identity) {
                                     return identity->FlawAt(now) == Flaw::None;
                                 });
            return bUsable ? std::optional(std::move(identities)) : std::nullopt;
        } catch (const Failure&) {
            return std::nullopt;
        } catch (const std::system_error& error) {
            Fail(Path(kStoreName), error.code().value());
        }
    }

    // Held for as long as the result lives, against other processes and threads that make the store.
    FileDescriptor Lock() const {
        FileDescriptor lock = Create(kLockName, 0);
        while (flock(lock.Get(), LOCK_EX) != 0) {
            if (errno != EINTR) {
                Fail(Path(kLockName), errno);
            }
        }
        return lock;
    }

    // The lock must be held. Readers see the old store or the whole new one.
    void Write(std::string_view bytes) const {
        unlinkat(m_directory.Get(), kNewStoreName, 0);
        const FileDescriptor file = Create(kNewStoreName, O_EXCL);
        while (!bytes.empty()) {
            const ssize_t cb = write(file.Get(), bytes.data(), bytes.size());
            if (cb < 0 && errno != EINTR) {
                Fail(Path(kNewStoreName), errno);
            }
            bytes.remove_prefix(cb > 0 ? static_cast<size_t>(cb) : 0);
        }
        if (fsync(file.Get()) != 0 || renameat(m_directory.Get(), kNewStoreName, m_directory.Get(), kStoreName) != 0) {
            Fail(Path(kStoreName), errno);
        }
    }

private:
    FileDescriptor Create(const char* pszName, int nFlags) const {
        FileDescriptor file(
            openat(m_directory.Get(), pszName, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | nFlags, 0600));
        if (!file.IsOpen()) {
            Fail(Path(pszName), errno);
        }
        MakePrivate(file.Get(), 0600, Path(pszName));
        return file;
    }

    std::string Path(const char* pszName) const { return m_strPath + "/" + pszName; }

    std::string m_strPath;
    FileDescriptor m_directory;
};

}  // namespace

Identities OpenDemoStore() {
    const DemoDirectory directory;
    if (std::optional<Identities> identities = directory.Read()) {
        return std::move(*identities);
    }
    const FileDescriptor lock = directory.Lock();
    if (std::optional<Identities> identities = directory.Read()) {
        return std::move(*identities);  // another process was quicker
    }
    const BioPtr pem = MakeDemoCertificates(std::time(nullptr));
    char* pchPem = nullptr;
    const long cbPem = BIO_get_mem_data(pem.get(), &pchPem);
    const std::string_view bytes(pchPem, static_cast<size_t>(cbPem));
    directory.Write(bytes);
    return ReadIdentities(bytes, nullptr);
}

}  // namespace vextk
