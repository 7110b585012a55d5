// The Windows-style functions that the client toolkit exports beside its VCTK_ operations.
//
// They keep their Windows names and meanings with the widths of VEXType.h. All may be called from any thread, and none
// throws. After a failure GetLastError gives the calling thread's reason; a success leaves it alone, but for
// VexCreateFile. docs/compatibility-functions.md tells what was decided where the platform leaves a choice.
#pragma once

#include "VEXType.h"

// Last error numbers, the platform's own.
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

// What VexCreateFile returns on failure. A handle of 0 is a failure as well.
inline const HANDLE INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(~std::uintptr_t{0});

extern "C" {

// The reason of the calling thread's last failed call; after VexCreateFile succeeds, 0 for a created file and
// ERROR_ALREADY_EXISTS for an opened one.
DWORD GetLastError();

// ---- Heap. Sizes in bytes; a block of size 0 is a block. Flags other than HEAP_ZERO_MEMORY do not count. ----
// A heap that is not the process's fails with ERROR_INVALID_HANDLE, a null block with ERROR_INVALID_PARAMETER.

// The heap of the process, valid for the process's life.
HANDLE GetProcessHeap();

// A block whose HeapSize is exactly dwBytes; null on failure. The caller frees it with HeapFree.
LPVOID HeapAlloc(HANDLE hHeap, DWORD dwFlags, DWORD dwBytes);

// The block resized, possibly moved, contents kept up to the smaller size; with HEAP_ZERO_MEMORY the added bytes are 0.
// Null on failure: lpMem is then untouched.
LPVOID HeapReAlloc(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem, DWORD dwBytes);

// The size last requested for the block; all ones on failure.
DWORD HeapSize(HANDLE hHeap, DWORD dwFlags, LPCVOID lpMem);

// A null block is freed with success.
BOOL HeapFree(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem);

// ---- Text ----

// Narrow to wide.
// cbMultiByte: bytes of the source, no terminator is then added; or -1 for a terminated source, whose terminator is
// part of it and counted. cchWideChar: room in characters. A null output or a room of 0 asks for the number needed.
// The characters written or needed; with -1 and room for all but the terminator, the text is written without it and its
// length returned. 0 on failure, nothing is then written:
//   ERROR_NO_UNICODE_TRANSLATION  malformed anywhere: nothing is replaced, nothing cut
//   ERROR_INSUFFICIENT_BUFFER     too little room
//   ERROR_INVALID_PARAMETER       another code page, a null or empty source, a negative room
//   ERROR_ARITHMETIC_OVERFLOW     the number needed is above INT_MAX
// UTF-8 includes surrogate pairs encoded as two three-byte sequences, as Java has them. Flags do not count.
int MultiByteToWideChar(UINT uCodePage, DWORD dwFlags, LPCSTR lpMultiByteStr, int cbMultiByte, LPWSTR lpWideCharStr,
                        int cchWideChar);

// Wide to narrow; as MultiByteToWideChar, with cbMultiByte the room in bytes. The result ends in the initial shift
// state. lpDefaultChar: null, or what stands in for characters that the locale cannot encode, of which
// *lpUsedDefaultChar tells (stored on success). For CP_UTF8 both have to be null.
int WideCharToMultiByte(UINT uCodePage, DWORD dwFlags, LPCWSTR lpWideCharStr, int cchWideChar, LPSTR lpMultiByteStr,
                        int cbMultiByte, LPCSTR lpDefaultChar, BOOL* lpUsedDefaultChar);

// Characters before the terminator, at most INT_MAX; 0 for null.
int lstrlenW(LPCWSTR lpString);

// Copies a terminated text into cchDest characters of room, terminator included; the two may overlap. 0 on success;
// ERANGE when it does not fit and EINVAL for a null pointer, the destination is then the empty text.
int wcscpy_s(LPWSTR pszDest, size_t cchDest, LPCWSTR pszSrc);

// Copies cbCount bytes into cbDest bytes of room; the two may overlap. 0 on success; ERANGE when they do not fit and
// EINVAL for a null pointer, the room is then zeroed.
int memcpy_x(void* pDest, size_t cbDest, const void* pSrc, size_t cbCount);

// ---- Files. Positions and sizes in bytes. ----
// A handle that is not open fails with ERROR_INVALID_HANDLE, whatever its value. A handle has one position; threads
// that share it take turns call by call, and one that closes it does not disturb a call under way. lpOverlapped does
// not count.

// Opens a regular file for reading and writing, creating it (mode 0600 under the umask) when it is missing. Does not
// follow a symbolic link of that name and never waits on a pipe or device. A file that belongs neither to the effective
// user nor to root is refused. lpFileName is narrow.
// Locks the file against other openings (flock) until CloseHandle, or a FlushFileBuffers of nothing. Waits up to two
// seconds for an opening that has it locked, only half a millisecond if it has waited for that file in vain before, and
// then opens it without the lock. INVALID_HANDLE_VALUE on failure. The caller closes the handle with CloseHandle.
HANDLE VexCreateFile(LPCSTR lpFileName);

BOOL CloseHandle(HANDLE hObject);

// From the current position, which moves on. *lpNumberOfBytesRead: the bytes read, fewer at the end of the file.
BOOL ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead, DWORD* lpNumberOfBytesRead,
              LPVOID lpOverlapped);

// At the current position, which moves on. *lpNumberOfBytesWritten: the bytes written, also on failure (say of a disk
// that fills up: ERROR_DISK_FULL).
BOOL WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite, DWORD* lpNumberOfBytesWritten,
               LPVOID lpOverlapped);

// Moves to the absolute position in liDistanceToMove.LowPart, which may lie beyond the end; above INT64_MAX it is
// ERROR_NEGATIVE_SEEK. The last two arguments are not looked at.
BOOL SetFilePointerEx(HANDLE hFile, LARGE_INTEGER liDistanceToMove, LONGLONG* lpNewFilePointer, DWORD dwMoveMethod);

// Stores 8 bytes at lpFileSize.
BOOL GetFileSizeEx(HANDLE hFile, LONGLONG* lpFileSize);

// Returns once all written bytes are with the kernel, so that every other process sees them and the end of this one
// loses none. It does not force the disk. When nothing was written since the last call, it ends the handle's lock;
// ReadFile, WriteFile, GetFileSizeEx and SetEndOfFile take it again, and wait for it as VexCreateFile does.
BOOL FlushFileBuffers(HANDLE hFile);

// Ends the file at the current position, cutting it or adding zeroes.
BOOL SetEndOfFile(HANDLE hFile);

// ---- Profile files, paths, time ----

// The integer of a key in a section of an ini file; nDefault when the file, the section or the key is missing, or the
// key has no value. compat/ProfileText.h has the rules of the text.
UINT GetPrivateProfileIntA(LPCSTR lpAppName, LPCSTR lpKeyName, INT nDefault, LPCSTR lpFileName);

// Wide paths reach the kernel in the encoding of the process locale; one that it cannot encode fails with
// ERROR_NO_UNICODE_TRANSLATION. Relative paths start from the current directory; / alone separates.

// Non-zero when the path names an existing directory.
BOOL PathIsDirectoryW(LPCWSTR pszPath);

// Cuts the last component off in place, with the separators before it; the root stays. Non-zero when something was cut.
BOOL PathRemoveFileSpecW(LPWSTR pszPath);

// Makes a directory and its missing parents (mode 0700 under the umask). The first and last argument are not looked at.
// ERROR_SUCCESS when made, ERROR_ALREADY_EXISTS when something of that name was there, else the reason.
int SHCreateDirectoryExW(HANDLE hwnd, LPCWSTR pszPath, LPCVOID psa);

// Milliseconds since the system was started.
DWORD GetTickCount();

}  // extern "C"
