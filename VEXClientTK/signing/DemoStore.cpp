#include "signing/DemoStore.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <system_error>
#include <vector>

#include "posix/Directories.h"
#include "posix/ErrnoText.h"
#include "posix/FileDescriptor.h"
#include "posix/FileIo.h"
#include "posix/LockFile.h"
#include "posix/OpenFile.h"
#include "posix/ReplacementFile.h"
#include "signing/DemoCertificates.h"
#include "signing/Failure.h"
#include "signing/FileBytes.h"
#include "signing/SharedIdentities.h"

namespace vextk {
namespace {

using vexposix::FileDescriptor;
using vexposix::OpenedFile;

constexpr const char* kStoreName = "demo.pem";
constexpr const char* kNewStoreName = "demo.pem.new";
constexpr const char* kLockName = "demo.lock";
constexpr size_t kLargestStore = 1 << 20;
constexpr mode_t kPrivateDirectory = 0700;
constexpr mode_t kAllRights = 0777;
constexpr std::chrono::seconds kLongestWait(60);  // making the store takes about a second

[[noreturn]] void Fail(const std::string& strPath, int nErrno) {
    const char* pszOwner = nErrno == EPERM ? " belongs to another user" : "";
    throw Failure(VCTK_E_DEMO_STORE, strPath + pszOwner + ": " + vexposix::ErrnoText(nErrno));
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
        throw Failure(VCTK_E_DEMO_STORE,
                      "neither XDG_DATA_HOME nor HOME names a directory; set one of them to an absolute path");
    }
    return pFound->pw_dir;
}

// A relative XDG_DATA_HOME is ignored, as the XDG Base Directory rules require.
std::string StoreDirectory() {
    const char* pszData = std::getenv("XDG_DATA_HOME");
    const std::string strData = pszData != nullptr && *pszData == '/' ? pszData : HomeDirectory() + "/.local/share";
    return strData + "/vex-client-toolkit";
}

class DemoDirectory {
public:
    DemoDirectory() : m_strPath(StoreDirectory()) {
        const int nErrno = vexposix::MakeDirectories(m_strPath.data(), kPrivateDirectory);
        if (nErrno != 0 && nErrno != EEXIST) {
            Fail(m_strPath.substr(0, m_strPath.find('\0')), nErrno);
        }
        m_directory = FileDescriptor(open(m_strPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        struct stat status {};
        if (!m_directory.IsOpen() || fstat(m_directory.Get(), &status) != 0) {
            Fail(m_strPath, errno);
        }
        if (status.st_uid != geteuid()) {
            Fail(m_strPath, EPERM);
        }
        if ((status.st_mode & kAllRights) != kPrivateDirectory && fchmod(m_directory.Get(), kPrivateDirectory) != 0) {
            Fail(m_strPath, errno);
        }
    }

    // The store's identities. Null: there is no store, or it must be made again.
    IdentitiesPtr Read() const {
        const OpenedFile file = OpenFile(m_directory.Get(), kStoreName, vexposix::kPrivateInput);
        if (file.nErrno == ENOENT) {
            return nullptr;
        }
        RequireSuccess(kStoreName, file.nErrno);
        try {
            IdentitiesPtr identities = ReadSharedIdentities(ReadFileBytes(file, kLargestStore).View(), nullptr);
            const std::time_t now = std::time(nullptr);
            const auto signs = [now](const IdentityPtr& identity) { return identity->FlawAt(now) == Flaw::kNone; };
            const bool bUsable = identities->size() == 2 && std::all_of(identities->begin(), identities->end(), signs);
            return bUsable ? identities : nullptr;
        } catch (const Failure&) {
            return nullptr;
        } catch (const std::system_error& error) {
            Fail(Path(kStoreName), error.code().value());
        }
    }

    // Keeps other processes and threads from making the store, as long as the result lives.
    FileDescriptor Lock() const {
        OpenedFile lock = OpenOrCreateFile(m_directory.Get(), kLockName, vexposix::kPrivate);
        RequireSuccess(kLockName, lock.nErrno);
        const int nErrno = vexposix::LockFile(lock.descriptor.Get(), LOCK_EX, kLongestWait);
        RequireSuccess(kLockName, nErrno == EWOULDBLOCK ? EBUSY : nErrno);
        return std::move(lock.descriptor);
    }

    // The lock must be held. Readers see the old store or the complete new one.
    void Write(std::string_view bytes) const {
        unlinkat(m_directory.Get(), kNewStoreName, 0);
        vexposix::ReplacementFile file(m_directory.Get(), kNewStoreName, S_IRUSR | S_IWUSR);
        RequireSuccess(kNewStoreName, file.IsOpen() ? 0 : errno);
        RequireSuccess(kNewStoreName, vexposix::WriteAll(file.Descriptor(), bytes));
        RequireSuccess(kStoreName, file.MoveTo(kStoreName));
    }

private:
    std::string Path(const char* pszName) const { return m_strPath + "/" + pszName; }

    void RequireSuccess(const char* pszName, int nErrno) const {
        if (nErrno != 0) {
            Fail(Path(pszName), nErrno);
        }
    }

    std::string m_strPath;
    FileDescriptor m_directory;
};

}  // namespace

IdentitiesPtr OpenDemoStore() {
    const DemoDirectory directory;
    if (IdentitiesPtr identities = directory.Read()) {
        return identities;
    }
    const FileDescriptor lock = directory.Lock();
    if (IdentitiesPtr identities = directory.Read()) {
        return identities;  // another process or thread has just made it
    }
    const BioPtr pem = MakeDemoCertificates(std::time(nullptr));
    char* pchPem = nullptr;
    const long cbPem = BIO_get_mem_data(pem.get(), &pchPem);
    const std::string_view bytes(pchPem, static_cast<size_t>(cbPem));
    directory.Write(bytes);
    return ReadSharedIdentities(bytes, nullptr);
}

}  // namespace vextk
