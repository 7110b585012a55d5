// Files behind handles that are numbers.

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "HandleTable.h"
#include "compat/FileLock.h"
#include "compat/LastError.h"
#include "compat/RegularFile.h"

namespace vextk {
namespace {

using Files = HandleTable<RegularFile>;

Files& OpenFiles() noexcept;

void BeforeFork() {
    OpenFiles().LockForFork();
    FileLock::BeforeFork();
}

void AfterForkHere() {
    FileLock::AfterForkHere();
    OpenFiles().UnlockAfterFork();
}

void AfterForkThere() {
    FileLock::AfterForkThere();
    OpenFiles().UnlockAfterFork();
}

Files& MakeOpenFiles() {
    constexpr std::uintptr_t kFirstHandle = 0x4600'0000'0004;
    Files& files = *new Files(kFirstHandle);
    pthread_atfork(BeforeFork, AfterForkHere, AfterForkThere);
    return files;
}

// Never destroyed: the log writer's thread may still be in it while the exit handlers run. Without the memory for it,
// no library is loaded.
Files& OpenFiles() noexcept {
    static Files& s_files = MakeOpenFiles();
    return s_files;
}

// Made before a second thread can be in the making of it when the process forks.
[[maybe_unused]] const Files& s_filesAtLoadTime = OpenFiles();

BOOL Fail(DWORD dwError) {
    SetLastErrorNumber(dwError);
    return FALSE;
}

// A successful call leaves the last error alone.
BOOL ResultOf(DWORD dwError) {
    return dwError == ERROR_SUCCESS ? TRUE : Fail(dwError);
}

// operation(file) returns the reason of its failure or ERROR_SUCCESS. The file lives until it has returned, also when
// another thread closes the handle meanwhile.
template <typename Operation>
BOOL CallFile(HANDLE hFile, Operation operation) {
    const std::shared_ptr<RegularFile> file = OpenFiles().Find(hFile);
    return ResultOf(file ? operation(*file) : ERROR_INVALID_HANDLE);
}

template <typename Operation>
BOOL TransferBytes(HANDLE hFile, LPCVOID lpBuffer, DWORD cbBuffer, DWORD* pcbDone, Operation operation) {
    if (pcbDone != nullptr) {
        *pcbDone = 0;
    }
    return CallFile(hFile, [=](RegularFile& file) -> DWORD {
        if (pcbDone == nullptr || (lpBuffer == nullptr && cbBuffer != 0)) {
            return ERROR_INVALID_PARAMETER;
        }
        const RegularFile::Transfer transfer = operation(file);
        *pcbDone = transfer.cb;
        return ErrorFromErrno(transfer.nErrno);
    });
}

struct Opened {
    FileDescriptor descriptor;  // not open: failure
    FileLock lock;
    DWORD dwError;
};

Opened NotOpened(DWORD dwError) {
    return {FileDescriptor(), FileLock(), dwError};
}

constexpr mode_t kOwnerOnly = 0600;  // log lines are nobody else's business

Opened LockOpened(FileDescriptor descriptor, unsigned uForksBeforeOpen) {
    struct stat status {};
    if (fstat(descriptor.Get(), &status) != 0) {
        return NotOpened(ErrorFromErrno(errno));
    }
    // A second name may be that of a file that its owner keeps elsewhere.
    if (!S_ISREG(status.st_mode) || status.st_nlink > 1) {
        return NotOpened(ERROR_ACCESS_DENIED);
    }
    // Another user could grow or lock a file of his own at any time. One of root's is shared on purpose.
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
        return NotOpened(ERROR_ACCESS_DENIED);
    }
    FileLock lock(descriptor.Get(), uForksBeforeOpen);
    return {std::move(descriptor), std::move(lock), ERROR_ALREADY_EXISTS};
}

// A file in the directory of that name, which nobody else can open yet. Not open where the file system has no such
// files.
FileDescriptor MakeNameless(std::string_view name) {
    const std::string strDirectory(name.substr(0, name.rfind('/') + 1));
    return FileDescriptor(
        open(strDirectory.empty() ? "." : strDirectory.c_str(), O_RDWR | O_CLOEXEC | O_TMPFILE, kOwnerOnly));
}

bool GiveName(const FileDescriptor& descriptor, const char* pszName) {
    std::array<char, 32> szNameless{};
    std::snprintf(szNameless.data(), szNameless.size(), "/proc/self/fd/%d", descriptor.Get());
    return linkat(AT_FDCWD, szNameless.data(), AT_FDCWD, pszName, AT_SYMLINK_FOLLOW) == 0;
}

// A new file is locked before it has its name: others that open it wait until its creator has written its beginning.
// Not open, with errno, on failure.
Opened Create(const char* pszName, int nFlags, unsigned uForksBeforeOpen) {
    if (FileDescriptor nameless = MakeNameless(pszName); nameless.IsOpen()) {
        FileLock lock(nameless.Get(), uForksBeforeOpen);
        if (GiveName(nameless, pszName)) {
            return {std::move(nameless), std::move(lock), ERROR_SUCCESS};
        }
    }
    FileDescriptor created(open(pszName, nFlags | O_CREAT | O_EXCL, kOwnerOnly));
    if (!created.IsOpen()) {
        return NotOpened(ERROR_SUCCESS);
    }
    // Here another process may have had the lock first, and written first.
    FileLock lock(created.Get(), uForksBeforeOpen);
    const bool bEmpty = lseek(created.Get(), 0, SEEK_END) == 0;
    return {std::move(created), std::move(lock), bEmpty ? ERROR_SUCCESS : ERROR_ALREADY_EXISTS};
}

// An existing file is opened without O_CREAT, as a file of somebody else in a directory like /tmp may not be.
Opened OpenOrCreate(const char* pszName) {
    // O_NONBLOCK: a pipe or device of that name must not hold the caller up; it means nothing for regular files.
    constexpr int kFlags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    // Somebody else may create and remove the file between the two attempts, but hardly time and again.
    constexpr int kMaxRounds = 100;
    for (int nRound = 0; nRound < kMaxRounds; ++nRound) {
        const unsigned uForks = FileLock::Forks();
        FileDescriptor existing(open(pszName, kFlags));
        if (existing.IsOpen()) {
            return LockOpened(std::move(existing), uForks);
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != ENOENT) {
            return NotOpened(ErrorFromErrno(errno));
        }
        Opened created = Create(pszName, kFlags, uForks);
        if (created.descriptor.IsOpen()) {
            return created;
        }
        if (errno != EEXIST && errno != EINTR) {
            return NotOpened(errno == ENOENT ? ERROR_PATH_NOT_FOUND : ErrorFromErrno(errno));
        }
    }
    return NotOpened(ERROR_SHARING_VIOLATION);
}

HANDLE FailToOpen(DWORD dwError) {
    SetLastErrorNumber(dwError);
    return INVALID_HANDLE_VALUE;
}

}  // namespace
}  // namespace vextk

using namespace vextk;

HANDLE VexCreateFile(LPCSTR lpFileName) {
    if (lpFileName == nullptr) {
        return FailToOpen(ERROR_INVALID_PARAMETER);
    }
    try {
        Opened opened = OpenOrCreate(lpFileName);
        if (!opened.descriptor.IsOpen()) {
            return FailToOpen(opened.dwError);
        }
        auto file = std::make_shared<RegularFile>(std::move(opened.descriptor), std::move(opened.lock));
        const HANDLE hFile = OpenFiles().Add(std::move(file));
        SetLastErrorNumber(opened.dwError);
        return hFile;
    } catch (const std::bad_alloc&) {
        return FailToOpen(ERROR_NOT_ENOUGH_MEMORY);
    }
}

BOOL CloseHandle(HANDLE hObject) {
    return OpenFiles().Remove(hObject) ? TRUE : Fail(ERROR_INVALID_HANDLE);
}

BOOL ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead, DWORD* lpNumberOfBytesRead, LPVOID) {
    return TransferBytes(hFile, lpBuffer, nNumberOfBytesToRead, lpNumberOfBytesRead,
                         [=](RegularFile& file) { return file.Read(lpBuffer, nNumberOfBytesToRead); });
}

BOOL WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite, DWORD* lpNumberOfBytesWritten, LPVOID) {
    return TransferBytes(hFile, lpBuffer, nNumberOfBytesToWrite, lpNumberOfBytesWritten,
                         [=](RegularFile& file) { return file.Write(lpBuffer, nNumberOfBytesToWrite); });
}

BOOL SetFilePointerEx(HANDLE hFile, LARGE_INTEGER liDistanceToMove, LONGLONG*, DWORD) {
    return CallFile(hFile, [=](RegularFile& file) -> DWORD {
        const auto nPosition = static_cast<off_t>(liDistanceToMove.LowPart);
        if (nPosition < 0) {
            return ERROR_NEGATIVE_SEEK;
        }
        file.SeekTo(nPosition);
        return ERROR_SUCCESS;
    });
}

BOOL GetFileSizeEx(HANDLE hFile, LONGLONG* lpFileSize) {
    return CallFile(hFile, [=](RegularFile& file) -> DWORD {
        if (lpFileSize == nullptr) {
            return ERROR_INVALID_PARAMETER;
        }
        off_t cbSize = 0;
        const int nErrno = file.GetSize(cbSize);
        if (nErrno == 0) {
            *lpFileSize = cbSize;
        }
        return ErrorFromErrno(nErrno);
    });
}

BOOL FlushFileBuffers(HANDLE hFile) {
    // Forcing the disk would cost every log line an fsync.
    return CallFile(hFile, [](RegularFile& file) {
        file.Flush();
        return ERROR_SUCCESS;
    });
}

BOOL SetEndOfFile(HANDLE hFile) {
    return CallFile(hFile, [](RegularFile& file) { return ErrorFromErrno(file.EndAtPosition()); });
}
