// Directories and paths. Wide paths are converted to the encoding of the current locale. The only separator is /.

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <cwchar>

#include "compat/LastError.h"
#include "posix/Directories.h"
#include "posix/PlatformError.h"

namespace vextk {
namespace {

// A wide path in the locale's encoding.
class LocalePath {
public:
    // Returns ERROR_SUCCESS, or why the path cannot be converted.
    DWORD Set(LPCWSTR pszPath) {
        if (pszPath == nullptr) {
            return ERROR_INVALID_PARAMETER;
        }
        const int cb = WideCharToMultiByte(CP_ACP, 0, pszPath, -1, m_szPath.data(), PATH_MAX, nullptr, nullptr);
        if (cb == 0) {
            return GetLastError() == ERROR_INSUFFICIENT_BUFFER ? ERROR_FILENAME_EXCED_RANGE : GetLastError();
        }
        m_szPath[static_cast<std::size_t>(cb)] = '\0';  // the conversion does not terminate a text that just fits
        return ERROR_SUCCESS;
    }
    char* Text() { return m_szPath.data(); }

private:
    std::array<char, PATH_MAX + 1> m_szPath;  // not cleared, because every log record would pay for it
};

// 0 for success.
int StatErrno(const char* pszPath, struct stat& status) {
    return stat(pszPath, &status) == 0 ? 0 : errno;
}

void CutTrailingSeparators(char* pszPath) {
    size_t cb = std::strlen(pszPath);
    while (cb > 1 && pszPath[cb - 1] == '/') {
        pszPath[--cb] = '\0';
    }
}

DWORD MakeDirectory(LPCWSTR pszPath) {
    LocalePath path;
    const DWORD dwError = path.Set(pszPath);
    if (dwError != ERROR_SUCCESS) {
        return dwError;
    }
    if (*path.Text() == '\0') {
        return ERROR_BAD_PATHNAME;
    }
    struct stat status {};
    int nErrno = StatErrno(path.Text(), status);
    if (nErrno == 0) {
        return ERROR_ALREADY_EXISTS;
    }
    if (nErrno == ENOENT) {
        CutTrailingSeparators(path.Text());
        constexpr mode_t kOwnerOnly = 0700;  // like the log files inside
        nErrno = vexposix::MakeDirectories(path.Text(), kOwnerOnly);
    }
    return nErrno == ENOENT ? ERROR_PATH_NOT_FOUND : vexposix::ErrorFromErrno(nErrno);
}

DWORD CheckDirectory(LPCWSTR pszPath) {
    LocalePath path;
    const DWORD dwError = path.Set(pszPath);
    if (dwError != ERROR_SUCCESS) {
        return dwError;
    }
    struct stat status {};
    const int nErrno = StatErrno(path.Text(), status);
    if (nErrno != 0) {
        return vexposix::ErrorFromErrno(nErrno);
    }
    return S_ISDIR(status.st_mode) ? ERROR_SUCCESS : ERROR_DIRECTORY;
}

}  // namespace
}  // namespace vextk

using namespace vextk;

BOOL PathIsDirectoryW(LPCWSTR pszPath) {
    const DWORD dwError = CheckDirectory(pszPath);
    if (dwError != ERROR_SUCCESS) {
        SetLastErrorNumber(dwError);
    }
    return dwError == ERROR_SUCCESS ? TRUE : FALSE;
}

BOOL PathRemoveFileSpecW(LPWSTR pszPath) {
    if (pszPath == nullptr || *pszPath == L'\0') {
        return FALSE;
    }
    wchar_t* pchEnd = std::wcsrchr(pszPath, L'/');
    if (pchEnd == nullptr) {
        *pszPath = L'\0';
        return TRUE;
    }
    while (pchEnd != pszPath && pchEnd[-1] == L'/') {
        --pchEnd;
    }
    if (pchEnd == pszPath) {
        ++pchEnd;  // keeps the root
    }
    if (*pchEnd == L'\0') {
        return FALSE;
    }
    *pchEnd = L'\0';
    return TRUE;
}

int SHCreateDirectoryExW(HANDLE, LPCWSTR pszPath, LPCVOID) {
    const DWORD dwError = MakeDirectory(pszPath);
    if (dwError != ERROR_SUCCESS) {
        SetLastErrorNumber(dwError);
    }
    return static_cast<int>(dwError);
}
