// The Windows-style functions that the client toolkit exports beside its VCTK_ operations.
//
// They keep their Windows names and meanings, with the widths of VEXType.h. Any thread may call them; none throws.
// After a failure GetLastError returns the calling thread's reason; wcscpy_s and memcpy_x return it instead. A success
// does not change it, except in VexCreateFile. docs/compatibility-functions.md explains the choices that the platform
// leaves open.
#pragma once

#include "VEXType.h"

// Last error numbers, with their Windows values.
inline constexpr DWORD ERROR_SUCCESS = 0;
inline constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
inline constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
inline constexpr DWORD ERROR_TOO_MANY_OPEN_FILES = 4;
inline constexpr DWORD ERROR_ACCESS_DENIED = 5;
inline constexpr DWORD ERROR_INVALID_HANDLE = 6;
inline constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
inline constexpr DWORD ERROR_WRITE_PROTECT = 19;
inline constexpr DWORD ERROR_GEN_FAILURE = 31;
inline constexpr DWORD ERROR_SHARING_VIOLATION = 32;
inline constexpr DWORD ERROR_INVALID_PARAMETER = 87;
inline constexpr DWORD ERROR_DISK_FULL = 112;
inline constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
inline constexpr DWORD ERROR_INVALID_NAME = 123;
inline constexpr DWORD ERROR_NEGATIVE_SEEK = 131;
inline constexpr DWORD ERROR_BAD_PATHNAME = 161;
inline constexpr DWORD ERROR_ALREADY_EXISTS = 183;
inline constexpr DWORD ERROR_FILENAME_EXCED_RANGE = 206;
inline constexpr DWORD ERROR_FILE_TOO_LARGE = 223;
inline constexpr DWORD ERROR_DIRECTORY = 267;
inline constexpr DWORD ERROR_ARITHMETIC_OVERFLOW = 534;
inline constexpr DWORD ERROR_NO_UNICODE_TRANSLATION = 1113;
inline constexpr DWORD ERROR_IO_DEVICE = 1117;

// Code pages of the text conversions.
inline constexpr UINT CP_ACP = 0;       // the multibyte encoding of libc's current locale
inline constexpr UINT CP_UTF8 = 65001;  // UTF-8

inline constexpr DWORD HEAP_ZERO_MEMORY = 8;  // flag of HeapAlloc and HeapReAlloc: new bytes read as 0
inline constexpr DWORD FILE_BEGIN = 0;        // move method of SetFilePointerEx: an absolute position

// What VexCreateFile returns on failure. A handle of 0 also means failure.
inline const HANDLE INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(~std::uintptr_t{0});

extern "C" {

// The reason of the calling thread's last failed call; after VexCreateFile succeeds, 0 for a created file and
// ERROR_ALREADY_EXISTS for an opened one.
DWORD GetLastError();

// ---- Heap. Sizes in bytes; a block may have size 0. Flags other than HEAP_ZERO_MEMORY are ignored. ----
// A handle other than GetProcessHeap's fails with ERROR_INVALID_HANDLE, a null block with ERROR_INVALID_PARAMETER.

// The heap of the process, valid as long as the process runs.
HANDLE GetProcessHeap();

// A block whose HeapSize is exactly dwBytes; null on failure. The caller frees it with HeapFree.
LPVOID HeapAlloc(HANDLE hHeap, DWORD dwFlags, DWORD dwBytes);

// Resizes the block, and may move it. The contents stay up to the smaller size; with HEAP_ZERO_MEMORY the added bytes
// are 0. Null on failure: lpMem is then unchanged.
LPVOID HeapReAlloc(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem, DWORD dwBytes);

// The size last requested for the block; all ones on failure.
DWORD HeapSize(HANDLE hHeap, DWORD dwFlags, LPCVOID lpMem);

// Succeeds for a null block.
BOOL HeapFree(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem);

// ---- Text ----

// Narrow to wide.
// cbMultiByte: bytes of the source, and no terminator is added; or -1 for a terminated source, whose terminator is
// converted and counted, too. cchWideChar: room in characters; 0, or a null output, asks for the number needed.
// Returns the number of characters written or needed. With -1 and room for all except the terminator, it writes the
// text without the terminator and returns its length. 0 on failure; nothing is then written:
//   ERROR_NO_UNICODE_TRANSLATION  the source is malformed; malformed parts are neither replaced nor cut off
//   ERROR_INSUFFICIENT_BUFFER     not enough room
//   ERROR_INVALID_PARAMETER       another code page, a null or empty source, a negative room
//   ERROR_ARITHMETIC_OVERFLOW     the number needed is above INT_MAX
// UTF-8 may have surrogate pairs encoded as two three-byte sequences, as Java writes them. Flags are ignored.
int MultiByteToWideChar(UINT uCodePage, DWORD dwFlags, LPCSTR lpMultiByteStr, int cbMultiByte, LPWSTR lpWideCharStr,
                        int cchWideChar);

// Wide to narrow, as MultiByteToWideChar; cbMultiByte is the room in bytes. The result ends in the initial shift state.
// lpDefaultChar: null, or the replacement for characters that the locale cannot encode. *lpUsedDefaultChar is set on
// success: whether the replacement was used. For CP_UTF8 both must be null.
int WideCharToMultiByte(UINT uCodePage, DWORD dwFlags, LPCWSTR lpWideCharStr, int cchWideChar, LPSTR lpMultiByteStr,
                        int cbMultiByte, LPCSTR lpDefaultChar, BOOL* lpUsedDefaultChar);

// The number of characters before the terminator, at most INT_MAX; 0 for null.
int lstrlenW(LPCWSTR lpString);

// Copies a terminated text into room for cchDest characters, terminator included; the two may overlap. Returns 0 on
// success; ERANGE when it does not fit and EINVAL for a null pointer, the destination is then the empty text.
int wcscpy_s(LPWSTR pszDest, size_t cchDest, LPCWSTR pszSrc);

// Copies cbCount bytes into room for cbDest bytes; the two may overlap. Returns 0 on success, and always for 0 bytes;
// ERANGE when they do not fit and EINVAL for a null pointer, the room is then set to 0.
int memcpy_x(void* pDest, size_t cbDest, const void* pSrc, size_t cbCount);

// ---- Files. Positions and sizes in bytes. ----
// Every handle that is not open fails with ERROR_INVALID_HANDLE. A handle has one position. Calls of several threads on
// one handle run one after the other; closing it does not disturb a running call. lpOverlapped is ignored.

// Opens a regular file for reading and writing, and creates it when it is missing (mode 0600 under the umask). Does not
// follow a symbolic link of that name and never waits on a pipe or device. Refuses a file that belongs neither to the
// effective user nor to root. lpFileName is narrow.
// Locks the file against other openings (flock) until CloseHandle, or until a FlushFileBuffers with nothing to flush.
// If another opening holds the lock, waits up to two seconds for it, or half a millisecond if an earlier wait for this
// file failed; then opens the file without the lock. Returns INVALID_HANDLE_VALUE on failure. The caller closes the
// handle with CloseHandle.
HANDLE VexCreateFile(LPCSTR lpFileName);

BOOL CloseHandle(HANDLE hObject);

// Reads at the current position and advances it. *lpNumberOfBytesRead: the bytes read, fewer at the end of the file.
BOOL ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead, DWORD* lpNumberOfBytesRead,
              LPVOID lpOverlapped);

// Writes at the current position and advances it. *lpNumberOfBytesWritten: the bytes written, also after a failure such
// as ERROR_DISK_FULL.
BOOL WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite, DWORD* lpNumberOfBytesWritten,
               LPVOID lpOverlapped);

// Moves to the absolute position in liDistanceToMove.LowPart, which may be beyond the end; a position above INT64_MAX
// fails with ERROR_NEGATIVE_SEEK. The last two arguments are ignored.
BOOL SetFilePointerEx(HANDLE hFile, LARGE_INTEGER liDistanceToMove, LONGLONG* lpNewFilePointer, DWORD dwMoveMethod);

// Stores 8 bytes at lpFileSize.
BOOL GetFileSizeEx(HANDLE hFile, LONGLONG* lpFileSize);

// Returns when the kernel has all written bytes: other processes see them, and they outlive this process. They need not
// be on the disk. When nothing was written since the last call, it releases the handle's lock; ReadFile, WriteFile,
// GetFileSizeEx and SetEndOfFile take the lock again and wait for it as VexCreateFile does.
BOOL FlushFileBuffers(HANDLE hFile);

// Ends the file at the current position: cuts it, or extends it with zeros.
BOOL SetEndOfFile(HANDLE hFile);

// ---- Profile files, paths, time ----

// The integer value of a key in a section of an ini file. nDefault when the file, the section or the key is missing, or
// the key has no value. compat/ProfileText.h defines the file's syntax.
UINT GetPrivateProfileIntA(LPCSTR lpAppName, LPCSTR lpKeyName, INT nDefault, LPCSTR lpFileName);

// Wide paths are converted to the encoding of the process locale; a path that it cannot encode fails with
// ERROR_NO_UNICODE_TRANSLATION. Relative paths start at the current directory. The only separator is /.

// Non-zero when the path names an existing directory.
BOOL PathIsDirectoryW(LPCWSTR pszPath);

// Cuts off the last component, with the separators before it, in place; the root stays. Non-zero when it cut something.
BOOL PathRemoveFileSpecW(LPWSTR pszPath);

// Creates a directory and its missing parents (mode 0700 under the umask). Ignores the first and the last argument.
// Returns ERROR_SUCCESS, ERROR_ALREADY_EXISTS when something of that name exists, or the reason of the failure.
int SHCreateDirectoryExW(HANDLE hwnd, LPCWSTR pszPath, LPCVOID psa);

// Milliseconds since the system started.
DWORD GetTickCount();

}  // extern "C"
