// The file that the log is written through: a file of this machine behind a handle of the toolkit, or one that a file
// server holds, known by the ID that the server gave it. An ID other than 0 decides for the server.
//
// For one thread at a time, but for EnableServerSupport and IsServerSupportEnabled.
//
// Local: operations without a file fail as the toolkit's functions do on a handle that is not open; after any failure
// GetLastError has the reason.
//
// Server: each operation is one exchange with the server (docs/wire-protocol.md), with a time-out of ten seconds for
// each receive, OpenFile twenty. An operation fails when the server says so, for instance because it was restarted and
// does not know the ID any more, or when there was no exchange at all: IsServerLost tells which. Nothing is repeated.
// To append when another server may be there than the one that opened the file:
//
//     if (!file.SeekToEnd() && !file.IsServerLost()) {
//         file.ForgetServerFile();  // closing an ID that is not known would be of no use
//         file.OpenFile(strName, dwError);
//         file.SeekToEnd();
//     }
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "ParsePacket.h"
#include "PipeIPC.h"
#include "VEXAtomicField.h"
#include "VEXCltpmCommProtocolDef.h"
#include "VEXCompat.h"
#include "VEXCstring.h"
#include "VEXType.h"

class CVexFile {
public:
    CVexFile() = default;
    explicit CVexFile(CPipeIPC::ForForkedChild tag) : m_pipcClient(tag) {}
    CVexFile(const CVexFile&) = delete;
    CVexFile& operator=(const CVexFile&) = delete;
    ~CVexFile() { CloseFile(); }

    // Whether files are opened through the file server from now on. Any thread.
    void EnableServerSupport(BOOL bEnable) { VEXStoreField(m_bEnable, bEnable); }
    BOOL IsServerSupportEnabled() const { return VEXLoadField(m_bEnable); }

    // 0: not a file of the server's.
    DWORD GetFileID() const { return m_dwFileID; }

    // Whether the last operation through the server failed for want of an answer.
    BOOL IsServerLost() const { return m_bServerLost; }

    // Gives up the server's file without telling the server.
    void ForgetServerFile() {
        m_dwFileID = 0;
        m_bServerLost = FALSE;
    }

    // Opens the file or creates it, after closing the one before. dwError: after success ERROR_SUCCESS for a created
    // file and another number for an opened one. After a failure the reason: what GetLastError said right then; the
    // server's number; ERROR_GEN_FAILURE without an answer.
    BOOL OpenFile(LPCTSTR lpszFileName, DWORD& dwError) {
        CloseFile();
        ForgetServerFile();
        if (IsServerSupportEnabled()) {
            return ServerOpenFile(lpszFileName, dwError);
        }
        const CStringA strName(lpszFileName);
        const CString strFileName(lpszFileName);  // now: a file that is made is not to go unnoticed for want of memory
        const HANDLE hFile = VexCreateFile(strName);
        dwError = ::GetLastError();
        VEXStoreField(m_hFile, hFile);
        if (!IsOpen()) {
            return FALSE;
        }
        m_strFileName = strFileName;
        return TRUE;
    }

    BOOL IsOpen() const { return m_dwFileID != 0 || IsFile(VEXLoadField(m_hFile)); }

    // Whether the open file may be written by other users than this process's. So may all files of the server's. In
    // doubt it may.
    BOOL MayOthersWrite() const {
        struct stat status = {};
        if (m_dwFileID != 0 || stat(CStringA(m_strFileName).GetString(), &status) != 0) {
            return TRUE;
        }
        return status.st_uid != geteuid() || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    }

    // Nothing happens without a file. Local: the members let go of it before it is closed, which can take long.
    // Server: one request; without an answer the ID stays.
    void CloseFile() {
        if (m_dwFileID != 0) {
            ServerCloseFile();
            return;
        }
        const HANDLE hFile = VEXLoadField(m_hFile);
        VEXStoreField(m_hFile, HANDLE{nullptr});
        m_strFileName.Empty();
        if (IsFile(hFile)) {
            CloseHandle(hFile);
        }
    }

    // Positions are absolute, in bytes.
    BOOL SeekTo(ULONGLONG ullPosition) {
        if (m_dwFileID != 0) {
            return ServerSeekTo(ullPosition) == SERVER_DONE;
        }
        LARGE_INTEGER liPosition = {};
        liPosition.LowPart = ullPosition;
        return SetFilePointerEx(m_hFile, liPosition, nullptr, FILE_BEGIN);
    }
    BOOL SeekToBegin() { return m_dwFileID != 0 ? ServerSeekToBegin() == SERVER_DONE : SeekTo(0); }
    // The server keeps the position at the end, wherever that comes to be, until the next seek or read.
    BOOL SeekToEnd() {
        if (m_dwFileID != 0) {
            return ServerSeekToEnd() == SERVER_DONE;
        }
        ULONGLONG ullSize = 0;
        const BOOL bSize = GetFileSize(ullSize);
        return SeekTo(ullSize) && bSize;
    }

    // 0 on failure.
    BOOL GetFileSize(ULONGLONG& ullSize) {
        if (m_dwFileID != 0) {
            return ServerGetFileSize(ullSize) == SERVER_DONE;
        }
        LONGLONG llSize = 0;
        const BOOL bResult = GetFileSizeEx(m_hFile, &llSize);
        ullSize = static_cast<ULONGLONG>(llSize);
        return bResult;
    }

    // dwCount: the bytes to transfer, and those that were, also after a failure.
    BOOL Read(BYTE* pbData, DWORD& dwCount) {
        if (m_dwFileID != 0) {
            return ServerRead(pbData, dwCount);
        }
        const DWORD dwWanted = dwCount;
        dwCount = 0;
        return ReadFile(m_hFile, pbData, dwWanted, &dwCount, nullptr);
    }
    // Server: the server's result, non-zero for success; without an answer the low half of the exchange's result, which
    // is not zero either. dwCount then stays as it is, as it does when the answer has no count.
    BOOL Write(const BYTE* pbData, DWORD& dwCount) {
        if (m_dwFileID != 0) {
            return ServerWrite(pbData, dwCount);
        }
        const DWORD dwWanted = dwCount;
        dwCount = 0;
        return WriteFile(m_hFile, pbData, dwWanted, &dwCount, nullptr);
    }

    BOOL Flush() { return m_dwFileID != 0 ? ServerFlush() == SERVER_DONE : FlushFileBuffers(m_hFile); }
    // Local: other processes may have the file's lock until the next operation. A flush of nothing ends the lock.
    void LetOthersWrite() {
        if (m_dwFileID == 0 && IsOpen()) {
            FlushFileBuffers(m_hFile);
            FlushFileBuffers(m_hFile);
        }
    }
    // Ends the file at the current position.
    BOOL SetEndOfFile() { return m_dwFileID != 0 ? ServerEndOfFile() == SERVER_DONE : ::SetEndOfFile(m_hFile); }

    // ---- The requests themselves, of whatever ID there is. The server's answer, 0 where that is too short, or the
    // result of the exchange that failed. ----

    static constexpr DWORD SERVER_DONE = 1;

    DWORD ServerSeekTo(ULONGLONG ullPosition) {
        return Ask(Request(VEX_FILE_SEEK_TO).Add(m_dwFileID).Add(static_cast<DWORD>(ullPosition)));
    }
    DWORD ServerSeekToBegin() { return Ask(Request(VEX_FILE_SEEK_TO_BEGIN).Add(m_dwFileID)); }
    DWORD ServerSeekToEnd() { return Ask(Request(VEX_FILE_SEEK_TO_END).Add(m_dwFileID)); }
    DWORD ServerFlush() { return Ask(Request(VEX_FILE_FLUSH).Add(m_dwFileID)); }
    DWORD ServerEndOfFile() { return Ask(Request(VEX_FILE_END_OF_FILE).Add(m_dwFileID)); }

    // For the process that a fork made, in which the thread that used the object is missing: gives up the handle,
    // however far that thread had come, and returns it for the caller to close; null when there is none. A file of the
    // server's stays open there, for the process that was forked. The object is not to be used again, not even to be
    // destroyed.
    HANDLE AbandonAfterFork() const {
        const HANDLE hFile = VEXLoadField(m_hFile);
        return IsFile(hFile) ? hFile : nullptr;
    }

private:
    // A request as it grows. Memory that is short at any point shows in the size.
    class Request {
    public:
        explicit Request(DWORD dwCmd) {
            const _tagVEX_COMM_PROTOCOL header = {dwCmd, 0, 0};
            Add(&header, sizeof header);
        }
        Request& Add(const void* pData, DWORD cbData) {
            m_packet.WriteBuffer(pData, cbData);
            m_cbRequest += cbData;
            return *this;
        }
        Request& Add(DWORD dwField) {
            m_packet.WriteDWORD(dwField);
            m_cbRequest += sizeof dwField;
            return *this;
        }

        // The whole request, with its length in the header; null when memory ran out. The last step.
        PBYTE Complete() {
            if (m_packet.GetSize() != m_cbRequest) {
                return nullptr;
            }
            const DWORD dwExtendSize = m_cbRequest - sizeof(_tagVEX_COMM_PROTOCOL);
            std::memcpy(m_packet.GetBytes() + offsetof(_tagVEX_COMM_PROTOCOL, dwExtendSize), &dwExtendSize,
                        sizeof dwExtendSize);
            return m_packet.GetBytes();
        }
        DWORD Size() const { return m_cbRequest; }

    private:
        CCommPacket m_packet;
        DWORD m_cbRequest = 0;
    };

    static BOOL IsFile(HANDLE hFile) { return hFile != nullptr && hFile != INVALID_HANDLE_VALUE; }

    // 0, or the result of the exchange that failed.
    long SendRequest(Request& request, CSmartBuffer& objReply, DWORD dwTimeout) {
        const PBYTE pbRequest = request.Complete();
        const long lResult = pbRequest == nullptr
                                 ? PIPE_ERROR_SEND
                                 : m_pipcClient.SendMessageAndWait(VEX_FILE_SERVER_SESSION, VEX_FILE_SERVER_OBJECT,
                                                                   pbRequest, request.Size(), objReply, dwTimeout);
        m_bServerLost = lResult != 0;
        return lResult;
    }

    // For requests that are answered by a number.
    DWORD Ask(Request& request) {
        DWORD dwUnused = 0;
        return Ask(request, dwUnused);
    }
    // By two.
    DWORD Ask(Request& request, DWORD& dwSecond) {
        CSmartBuffer objReply;
        const long lResult = SendRequest(request, objReply, VEX_FILE_TIMEOUT);
        if (lResult != 0) {
            return static_cast<DWORD>(lResult);
        }
        CCommUnPacket packet(objReply);
        DWORD dwResult = 0;
        packet.ReadDWORD(dwResult);
        packet.ReadDWORD(dwSecond);
        return dwResult;
    }

    BOOL ServerOpenFile(LPCTSTR lpszFileName, DWORD& dwError) {
        m_bServerLost = FALSE;
        const LPCTSTR lpszName = lpszFileName != nullptr ? lpszFileName : L"";
        const int cbTerminated = WideCharToMultiByte(CP_UTF8, 0, lpszName, -1, nullptr, 0, nullptr, nullptr);
        CSmartBuffer objName;
        if (cbTerminated <= 0) {
            dwError = ::GetLastError();
            return FALSE;
        }
        if (objName.Alloc(static_cast<DWORD>(cbTerminated)) == nullptr) {
            dwError = ERROR_NOT_ENOUGH_MEMORY;
            return FALSE;
        }
        WideCharToMultiByte(CP_UTF8, 0, lpszName, -1, objName, cbTerminated, nullptr, nullptr);
        const auto cbName = static_cast<DWORD>(cbTerminated) - 1;
        CSmartBuffer objReply;
        if (SendRequest(Request(VEX_FILE_OPEN).Add(cbName).Add(objName.GetAddress(), cbName), objReply,
                        VEX_FILE_OPEN_TIMEOUT) != 0) {
            dwError = ERROR_GEN_FAILURE;
            return FALSE;
        }
        CCommUnPacket packet(objReply);
        DWORD dwFileID = 0;
        DWORD dwCreated = 0;
        DWORD dwServerError = 0;
        packet.ReadDWORD(dwFileID);
        packet.ReadDWORD(dwCreated);
        packet.ReadDWORD(dwServerError);
        if (dwFileID == 0) {
            dwError = dwServerError != ERROR_SUCCESS ? dwServerError : ERROR_GEN_FAILURE;
            return FALSE;
        }
        dwError = dwCreated != 0 ? ERROR_SUCCESS : ERROR_ALREADY_EXISTS;
        m_dwFileID = dwFileID;
        m_strFileName = lpszName;
        return TRUE;
    }

    // The answer itself does not matter.
    void ServerCloseFile() {
        CSmartBuffer objReply;
        if (SendRequest(Request(VEX_FILE_CLOSE).Add(m_dwFileID), objReply, VEX_FILE_TIMEOUT) == 0) {
            ForgetServerFile();
        }
    }

    DWORD ServerGetFileSize(ULONGLONG& ullSize) {
        DWORD dwSize = 0;
        const DWORD dwResult = Ask(Request(VEX_FILE_GET_SIZE).Add(m_dwFileID), dwSize);
        ullSize = dwResult == SERVER_DONE ? dwSize : 0;
        return dwResult;
    }

    // An answer with more bytes than were asked for, or with fewer than it says, is a failure.
    BOOL ServerRead(BYTE* pbData, DWORD& dwCount) {
        const DWORD dwWanted = dwCount;
        dwCount = 0;
        CSmartBuffer objReply;
        if (SendRequest(Request(VEX_FILE_READ).Add(m_dwFileID).Add(dwWanted), objReply, VEX_FILE_TIMEOUT) != 0) {
            return FALSE;
        }
        CCommUnPacket packet(objReply);
        BOOL bResult = FALSE;
        DWORD dwRead = 0;
        packet.ReadBOOL(bResult);
        packet.ReadDWORD(dwRead);
        if (dwRead > dwWanted || packet.ReadBuffer(pbData, dwRead) != dwRead) {
            return FALSE;
        }
        dwCount = dwRead;
        return bResult;
    }

    BOOL ServerWrite(const BYTE* pbData, DWORD& dwCount) {
        Request request(VEX_FILE_WRITE);
        request.Add(m_dwFileID).Add(dwCount);
        if (pbData != nullptr && dwCount != 0) {
            request.Add(pbData, dwCount);
        }
        CSmartBuffer objReply;
        const long lResult = SendRequest(request, objReply, VEX_FILE_TIMEOUT);
        if (lResult != 0) {
            return static_cast<BOOL>(lResult);
        }
        CCommUnPacket packet(objReply);
        BOOL bResult = FALSE;
        packet.ReadBOOL(bResult);
        packet.ReadDWORD(dwCount);
        return bResult;
    }

    HANDLE m_hFile = nullptr;
    CString m_strFileName;
    DWORD m_dwFileID = 0;
    CPipeIPC m_pipcClient;
    BOOL m_bEnable = FALSE;
    BOOL m_bServerLost = FALSE;
};
