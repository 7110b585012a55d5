// The file functions of VEXCompat.h. Their handles are numbers.

#include <fcntl.h>

#include <memory>
#include <new>
#include <optional>

#include "HandleTable.h"
#include "compat/FileLock.h"
#include "compat/LastError.h"
#include "compat/RegularFile.h"
#include "posix/ForkPhases.h"
#include "posix/OpenFile.h"
#include "posix/PlatformError.h"

namespace vextk {
namespace {

using vexposix::ErrorFromErrno;
using vexposix::ErrorFromOpening;
using vexposix::FileDescriptor;
using vexposix::ForkPhase;
using vexposix::OpenedFile;

using Files = HandleTable<RegularFile>;

Files& OpenFiles() noexcept;

// Not inlined, so that OpenFiles stays short: each call of a file function runs it.
[[gnu::noinline]] Files& MakeOpenFiles() {
    constexpr std::uintptr_t kFirstHandle = 0x4600'0000'0004;
    Files& files = *new Files(kFirstHandle);
    // Not analysed: the lock is held from one handler to the next.
    constexpr auto kLock = []() VEX_NO_THREAD_SAFETY_ANALYSIS { OpenFiles().LockForFork(); };
    constexpr auto kUnlock = []() VEX_NO_THREAD_SAFETY_ANALYSIS { OpenFiles().UnlockAfterFork(); };
    vexposix::AddToFork(ForkPhase::kOpenFiles, {kLock, kUnlock, kUnlock});
    vexposix::AddToFork(ForkPhase::kFileClosing,
                        {FileLock::BeforeFork, FileLock::AfterForkHere, FileLock::AfterForkThere});
    return files;
}

// Never destroyed: the log writer's thread may still use it while the exit handlers run. If memory runs out here, at
// load time, the process ends.
Files& OpenFiles() noexcept {
    static Files& s_files = MakeOpenFiles();
    return s_files;
}

// Created at load time, so that no fork can interrupt its creation.
[[maybe_unused]] const Files& s_filesAtLoadTime = OpenFiles();

BOOL Fail(DWORD dwError) {
    SetLastErrorNumber(dwError);
    return FALSE;
}

// A successful call does not change the last error.
BOOL ResultOf(DWORD dwError) {
    return dwError == ERROR_SUCCESS ? TRUE : Fail(dwError);
}

// operation(file) returns ERROR_SUCCESS or the reason for its failure. The file stays open until operation returns,
// even if another thread closes the handle.
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
        const vexposix::Transfer transfer = operation(file);
        *pcbDone = transfer.cb;
        return ErrorFromErrno(transfer.nErrno);
    });
}

struct Opened {
    FileDescriptor descriptor;  // not open when opening failed
    FileLock lock;
    DWORD dwError;
};

// A new file is locked before it gets its name. So others that open it wait until its creator has written the
// beginning.
Opened OpenLocked(const char* pszName) {
    const unsigned uForks = FileLock::Forks();
    std::optional<FileLock> lock;
    OpenedFile opened = OpenOrCreateFile(AT_FDCWD, pszName, vexposix::kKnownName,
                                         [&](int nDescriptor) { lock.emplace(nDescriptor, uForks); });
    if (!opened.descriptor.IsOpen()) {
        return {FileDescriptor(), FileLock(), ErrorFromOpening(opened.nErrno)};
    }
    if (!opened.bCreated) {
        lock.emplace(opened.descriptor.Get(), uForks);
    }
    return {std::move(opened.descriptor), std::move(*lock), opened.bCreated ? ERROR_SUCCESS : ERROR_ALREADY_EXISTS};
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
        Opened opened = OpenLocked(lpFileName);
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
    // There is no fsync, because it would slow down every log line.
    return CallFile(hFile, [](RegularFile& file) {
        file.Flush();
        return ERROR_SUCCESS;
    });
}

BOOL SetEndOfFile(HANDLE hFile) {
    return CallFile(hFile, [](RegularFile& file) { return ErrorFromErrno(file.EndAtPosition()); });
}
