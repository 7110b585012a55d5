// The Windows-style scalar types, with the widths they have in this library.
//
// Conventions of all headers in this folder:
//  1. Widths are those of 64-bit Linux: DWORD, ULONG, LONG and HRESULT are 8 bytes, WCHAR is 4 bytes (UTF-32).
//     The library's files, wire formats and calls depend on these widths.
//  2. BOOL results are non-zero for success. Handles are 0 or -1 on failure. The number of the failure is kept for the
//     calling thread (GetLastError) or in the object (VCTK_GetLastError).
//  3. The holder of a CString, CStringA or CSmartBuffer owns its storage. Unless its comment says so, a function keeps
//     no pointer argument after it returns, and returns no memory that its caller must free.
//  4. "Narrow" text is in the multibyte encoding of the process locale unless a comment says UTF-8; "wide" text is
//     UTF-32. Both end in a zero character unless a length is given.
//  5. A length in characters is called cch or nLen, one in bytes cb or dwSize.
//  6. A class is for one thread at a time unless its comment says otherwise.
#pragma once

#include <cstddef>
#include <cstdint>

using BYTE = unsigned char;
using BOOLEAN = unsigned char;
using WORD = unsigned short;
using USHORT = unsigned short;
using INT = int;
using BOOL = int;
using UINT = unsigned int;
using DWORD = unsigned long;
using ULONG = unsigned long;
using LONG = long;
using HRESULT = long;
using LONGLONG = long long;
using ULONGLONG = unsigned long long;

using HANDLE = void*;
using LPVOID = void*;
using LPCVOID = const void*;
using PBYTE = unsigned char*;
using SOCKET = int;

using WCHAR = wchar_t;
using TCHAR = wchar_t;
using LPSTR = char*;
using LPCSTR = const char*;
using LPTSTR = wchar_t*;
using LPWSTR = wchar_t*;
using LPCTSTR = const wchar_t*;
using LPCWSTR = const wchar_t*;

#undef TRUE
#undef FALSE
inline constexpr BOOL FALSE = 0;
inline constexpr BOOL TRUE = 1;

// A 64-bit byte position: LowPart has all of it, HighPart is 0.
union LARGE_INTEGER {
    __extension__ struct {
        DWORD LowPart;
        LONG HighPart;
    };
};

static_assert(sizeof(BYTE) == 1 && sizeof(BOOLEAN) == 1);
static_assert(sizeof(WORD) == 2 && sizeof(USHORT) == 2);
static_assert(sizeof(INT) == 4 && sizeof(BOOL) == 4 && sizeof(UINT) == 4 && sizeof(SOCKET) == 4);
static_assert(sizeof(DWORD) == 8 && sizeof(ULONG) == 8 && sizeof(LONG) == 8 && sizeof(HRESULT) == 8);
static_assert(sizeof(LONGLONG) == 8 && sizeof(ULONGLONG) == 8);
static_assert(sizeof(HANDLE) == 8 && sizeof(LPVOID) == 8 && sizeof(PBYTE) == 8);
static_assert(sizeof(WCHAR) == 4 && sizeof(TCHAR) == 4);
static_assert(sizeof(LARGE_INTEGER) == 16);
static_assert(offsetof(LARGE_INTEGER, LowPart) == 0 && offsetof(LARGE_INTEGER, HighPart) == 8);
