// Reads integers from profile files.

#include <cerrno>
#include <new>
#include <string>

#include "compat/LastError.h"
#include "compat/ProfileText.h"
#include "posix/OpenFile.h"
#include "posix/PlatformError.h"

namespace vextk {
namespace {

// Far larger than any real profile file. It limits the time and memory that a wrong file takes.
constexpr std::size_t kMaxFile = std::size_t{1024} * 1024;

// Returns the platform's error number.
DWORD ReadProfile(const char* pszName, std::string& strText) {
    const vexposix::OpenedFile file = vexposix::OpenFile(AT_FDCWD, pszName, vexposix::kInput);
    const auto room = [&](std::size_t cb) {
        strText.resize(cb);
        return strText.data();
    };
    const vexposix::Transfer transfer = vexposix::ReadWhole(file, kMaxFile, room);
    strText.resize(transfer.cb);
    return file.nErrno == EINVAL ? ERROR_ACCESS_DENIED : vexposix::ErrorFromErrno(transfer.nErrno);
}

}  // namespace
}  // namespace vextk

using namespace vextk;

UINT GetPrivateProfileIntA(LPCSTR lpAppName, LPCSTR lpKeyName, INT nDefault, LPCSTR lpFileName) {
    const auto uDefault = static_cast<UINT>(nDefault);
    if (lpAppName == nullptr || lpKeyName == nullptr || lpFileName == nullptr) {
        SetLastErrorNumber(ERROR_INVALID_PARAMETER);
        return uDefault;
    }
    try {
        std::string strText;
        const DWORD dwError = ReadProfile(lpFileName, strText);
        if (dwError != ERROR_SUCCESS) {
            SetLastErrorNumber(dwError);
            return uDefault;
        }
        const std::optional<UINT> uValue = FindProfileInteger(strText, lpAppName, lpKeyName);
        if (!uValue) {
            SetLastErrorNumber(ERROR_FILE_NOT_FOUND);
        }
        return uValue.value_or(uDefault);
    } catch (const std::bad_alloc&) {
        SetLastErrorNumber(ERROR_NOT_ENOUGH_MEMORY);
        return uDefault;
    }
}
