// The toolkit's functions on files, except WriteFile, for sources that define them in front of the toolkit's.
#pragma once

#include "SystemCalls.h"
#include "VEXCompat.h"

// X(result, name, failure, parameters, arguments): failure is what the function returns when it is made to fail.
// s_pName is the toolkit's function (VEX_NEXT). A failing CloseHandle still closes, so that the test itself does not
// leak. VexCreateFile also sets the last error.
#define VEX_FILE_FUNCTIONS(X)                                                                                        \
    X(HANDLE, VexCreateFile, s_pVexCreateFile(nullptr), (LPCSTR lpFileName), (lpFileName))                           \
    X(BOOL, CloseHandle, (s_pCloseHandle(hObject), FALSE), (HANDLE hObject), (hObject))                              \
    X(BOOL, ReadFile, FALSE, (HANDLE hFile, LPVOID lpBuffer, DWORD cb, DWORD * pcbRead, LPVOID lpOverlapped),        \
      (hFile, lpBuffer, cb, pcbRead, lpOverlapped))                                                                  \
    X(BOOL, SetFilePointerEx, FALSE,                                                                                 \
      (HANDLE hFile, LARGE_INTEGER liDistance, LONGLONG * pPosition, DWORD dwMoveMethod),                            \
      (hFile, liDistance, pPosition, dwMoveMethod))                                                                  \
    X(BOOL, GetFileSizeEx, FALSE, (HANDLE hFile, LONGLONG * lpFileSize), (hFile, lpFileSize))                        \
    X(BOOL, FlushFileBuffers, FALSE, (HANDLE hFile), (hFile))                                                        \
    X(BOOL, SetEndOfFile, FALSE, (HANDLE hFile), (hFile))                                                            \
    X(BOOL, PathIsDirectoryW, FALSE, (LPCWSTR pszPath), (pszPath))                                                   \
    X(int, SHCreateDirectoryExW, static_cast<int>(ERROR_ACCESS_DENIED), (HANDLE hwnd, LPCWSTR pszPath, LPCVOID psa), \
      (hwnd, pszPath, psa))

// Looked up before main, while nothing is counted and nothing fails.
#define VEX_NEXT(Name) auto* const s_p##Name = system_calls::Next(Name, #Name)
