// The file that the log is written through: a file of this machine behind a handle of the toolkit.
//
// For one thread at a time. Operations without a file fail as the toolkit's functions do on a handle that is not open;
// after any failure GetLastError has the reason.
//
// A file id other than 0 would say that a file server holds the file. No operation here asks a server yet, so the id
// stays 0, and an object that is to use a server opens nothing.
#pragma once

#include "PipeIPC.h"
#include "VEXCompat.h"
#include "VEXStringBlock.h"
#include "VEXType.h"
#include "VEXcstring.h"

class CVexFile {
public:
    CVexFile() = default;
    CVexFile(const CVexFile&) = delete;
    CVexFile& operator=(const CVexFile&) = delete;
    ~CVexFile() { CloseFile(); }

    // Whether files are to be opened through the file server.
    void EnableServerSupport(BOOL bEnable) { m_bEnable = bEnable; }
    DWORD GetFileID() const { return m_dwFileID; }

    // Opens the file or creates it, after closing the one before. dwError: what GetLastError said right then, after
    // success ERROR_SUCCESS for a created file and another number for an opened one.
    BOOL OpenFile(LPCTSTR lpszFileName, DWORD& dwError) {
        CloseFile();
        if (m_bEnable) {
            dwError = ERROR_ACCESS_DENIED;
            return FALSE;
        }
        const CStringA strName(lpszFileName);
        const HANDLE hFile = VexCreateFile(strName);
        dwError = ::GetLastError();
        VEXStoreField(m_hFile, hFile);
        if (!IsOpen()) {
            return FALSE;
        }
        m_strFileName = lpszFileName;
        return TRUE;
    }

    BOOL IsOpen() const { return IsFile(VEXLoadField(m_hFile)); }

    // Nothing happens without a file. The members let go of it before it is closed, which can take long.
    void CloseFile() {
        const HANDLE hFile = VEXLoadField(m_hFile);
        VEXStoreField(m_hFile, HANDLE{nullptr});
        m_strFileName.Empty();
        if (IsFile(hFile)) {
            CloseHandle(hFile);
        }
    }

    // Positions are absolute, in bytes.
    BOOL SeekTo(ULONGLONG ullPosition) {
        LARGE_INTEGER liPosition = {};
        liPosition.LowPart = ullPosition;
        return SetFilePointerEx(m_hFile, liPosition, nullptr, FILE_BEGIN);
    }
    BOOL SeekToBegin() { return SeekTo(0); }
    BOOL SeekToEnd() {
        ULONGLONG ullSize = 0;
        const BOOL bSize = GetFileSize(ullSize);
        return SeekTo(ullSize) && bSize;
    }

    // 0 on failure.
    BOOL GetFileSize(ULONGLONG& ullSize) {
        LONGLONG llSize = 0;
        const BOOL bResult = GetFileSizeEx(m_hFile, &llSize);
        ullSize = static_cast<ULONGLONG>(llSize);
        return bResult;
    }

    // dwCount: the bytes to transfer, and those that were, also after a failure.
    BOOL Read(BYTE* pbData, DWORD& dwCount) {
        const DWORD dwWanted = dwCount;
        dwCount = 0;
        return ReadFile(m_hFile, pbData, dwWanted, &dwCount, nullptr);
    }
    BOOL Write(const BYTE* pbData, DWORD& dwCount) {
        const DWORD dwWanted = dwCount;
        dwCount = 0;
        return WriteFile(m_hFile, pbData, dwWanted, &dwCount, nullptr);
    }

    BOOL Flush() { return FlushFileBuffers(m_hFile); }
    // Ends the file at the current position.
    BOOL SetEndOfFile() { return ::SetEndOfFile(m_hFile); }

    // For the process that a fork made, in which the thread that used the object is missing: gives up the handle,
    // however far that thread had come, and returns it for the caller to close; null when there is none. The object is
    // not to be used again, not even to be destroyed.
    HANDLE AbandonAfterFork() const {
        const HANDLE hFile = VEXLoadField(m_hFile);
        return IsFile(hFile) ? hFile : nullptr;
    }

private:
    static BOOL IsFile(HANDLE hFile) { return hFile != nullptr && hFile != INVALID_HANDLE_VALUE; }

    HANDLE m_hFile = nullptr;
    CString m_strFileName;
    DWORD m_dwFileID = 0;
    CPipeIPC m_pipcClient;
    BOOL m_bEnable = FALSE;
};
