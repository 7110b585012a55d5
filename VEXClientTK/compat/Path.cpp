// Directories and paths. Wide paths reach the kernel in the encoding of the current locale; / alone separates.

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <cwchar>

#include "compat/LastError.h"

namespace vextk {
namespace {

// A wide path in the locale's encoding.
class LocalePath {
public:
    // ERROR_SUCCESS, or why there is no such path.
    DWORD Set(LPCWSTR pszPath) {
        if (pszPath == nullptr) {
            return ERROR_INVALID_PARAMETER;
        }
        const int cb = WideCharToMultiByte(CP_ACP, 0, pszPath, -1, m_szPath.data(), PATH_MAX, nullptr, nullptr);
        if (cb == 0) {
            return GetLastError() == ERROR_INSUFFICIENT_BUFFER ? ERROR_FILENAME_EXCED_RANGE : GetLastError();
        }
        m_szPath[static_cast<std::size_t>(cb)] = '\0';  // a text that just fits is not terminated by the conversion
        return ERROR_SUCCESS;
    }
    char* Text() { return m_szPath.data(); }

private:
    std::array<char, PATH_MAX + 1> m_szPath;  // not cleared, a log record is measured against it
};

// 0 for success.
int StatErrno(const char* pszPath, struct stat& status) {
    return stat(pszPath, &status) == 0 ? 0 : errno;
}

int MakeErrno(const char* pszPath) {
    constexpr mode_t kOwnerOnly = 0700;  // like the log files inside
    return mkdir(pszPath, kOwnerOnly) == 0 ? 0 : errno;
}

// A directory that mkdir refuses to make for another reason than that it exists (a read-only file system, say) may
// exist nevertheless.
int MakeParent(const char* pszPath) {
    const int nErrno = MakeErrno(pszPath);
    struct stat status {};
    return nErrno == EEXIST || (nErrno != 0 && StatErrno(pszPath, status) == 0) ? 0 : nErrno;
}

// Makes what comes before each separator. The path is whole again on return.
int MakeParents(char* pszPath) {
    for (char* pch = pszPath + 1; *pch != '\0'; ++pch) {
        if (*pch != '/' || pch[-1] == '/') {
            continue;
        }
        *pch = '\0';
        const int nErrno = MakeParent(pszPath);
        *pch = '/';
        if (nErrno != 0) {
            return nErrno;
        }
    }
    return 0;
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
        nErrno = MakeErrno(path.Text());
        if (nErrno == ENOENT) {
            nErrno = MakeParents(path.Text());
            nErrno = nErrno == 0 ? MakeErrno(path.Text()) : nErrno;
        }
    }
    return nErrno == ENOENT ? ERROR_PATH_NOT_FOUND : ErrorFromErrno(nErrno);
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
        return ErrorFromErrno(nErrno);
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
        ++pchEnd;  // the root stays
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
