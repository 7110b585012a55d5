// The log's file: a local file behind a handle of the toolkit, or a file of a file server, identified by the ID that
// the server assigned. With an ID other than 0 it is a file of the server.
//
// For one thread at a time, except EnableServerSupport and IsServerSupportEnabled.
//
// Local: without an open file, operations fail as the toolkit's functions do on a handle that is not open. After any
// failure GetLastError has the reason.
//
// Server: each operation is one exchange with the server (docs/wire-protocol.md). Each receive of a reply has a
// time-out of ten seconds, OpenFile twenty. An operation fails when the server reports a failure, for instance because
// it was restarted and does not know the ID, or when the exchange itself failed: IsServerLost tells which. Nothing is
// retried.
//
// To append when the server may have been restarted since the file was opened:
//
//     if (!file.SeekToEnd() && !file.IsServerLost()) {
//         file.ForgetServerFile();  // the server does not know the ID, so it cannot close the file
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

    // Whether OpenFile uses the file server from now on. Any thread.
    void EnableServerSupport(BOOL bEnable) { VEXStoreField(m_bEnable, bEnable); }
    BOOL IsServerSupportEnabled() const { return VEXLoadField(m_bEnable); }

    // 0: not a file of the server.
    DWORD GetFileID() const { return m_dwFileID; }

    // Whether the last operation through the server failed because there was no answer.
    BOOL IsServerLost() const { return m_bServerLost; }

    // Forgets the server's file without telling the server.
    void ForgetServerFile() {
        m_dwFileID = 0;
        m_bServerLost = FALSE;
    }

    // Closes the current file, then opens or creates the named one. dwError after success: ERROR_SUCCESS for a created
    // file, another number for an opened one. After a failure: the reason from GetLastError or from the server;
    // ERROR_GEN_FAILURE when the server did not answer.
    BOOL OpenFile(LPCTSTR lpszFileName, DWORD& dwError) {
        CloseFile();
        ForgetServerFile();
        if (IsServerSupportEnabled()) {
            return ServerOpenFile(lpszFileName, dwError);
        }
        const CStringA strName(lpszFileName);
        const CString strFileName(lpszFileName);  // before a file is created, because it may throw
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

    // Whether users other than this process's user may write the open file. TRUE for files of the server and in doubt.
    BOOL MayOthersWrite() const {
        struct stat status = {};
        if (m_dwFileID != 0 || stat(CStringA(m_strFileName).GetString(), &status) != 0) {
            return TRUE;
        }
        return status.st_uid != geteuid() || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    }

    // Does nothing without a file. Local: the members are cleared before the file is closed, which can take long.
    // Server: sends one request; without an answer the ID stays.
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
    // Server: the position follows the end of the growing file until the next seek or read.
    BOOL SeekToEnd() {
        if (m_dwFileID != 0) {
            return ServerSeekToEnd() == SERVER_DONE;
        }
        ULONGLONG ullSize = 0;
        const BOOL bSize = GetFileSize(ullSize);
        return SeekTo(ullSize) && bSize;
    }

    // ullSize: in bytes, 0 on failure.
    BOOL GetFileSize(ULONGLONG& ullSize) {
        if (m_dwFileID != 0) {
            return ServerGetFileSize(ullSize) == SERVER_DONE;
        }
        LONGLONG llSize = 0;
        const BOOL bResult = GetFileSizeEx(m_hFile, &llSize);
        ullSize = static_cast<ULONGLONG>(llSize);
        return bResult;
    }

    // dwCount: in, the bytes to transfer; out, the bytes transferred, also after a failure.
    BOOL Read(BYTE* pbData, DWORD& dwCount) {
        if (m_dwFileID != 0) {
            return ServerRead(pbData, dwCount);
        }
        const DWORD dwWanted = dwCount;
        dwCount = 0;
        return ReadFile(m_hFile, pbData, dwWanted, &dwCount, nullptr);
    }
    // Server: returns the server's result, non-zero for success. Without an answer it returns the low half of the
    // exchange's result, which is also non-zero. dwCount then stays unchanged, as it does if the answer has no count.
    BOOL Write(const BYTE* pbData, DWORD& dwCount) {
        if (m_dwFileID != 0) {
            return ServerWrite(pbData, dwCount);
        }
        const DWORD dwWanted = dwCount;
        dwCount = 0;
        return WriteFile(m_hFile, pbData, dwWanted, &dwCount, nullptr);
    }

    BOOL Flush() { return m_dwFileID != 0 ? ServerFlush() == SERVER_DONE : FlushFileBuffers(m_hFile); }
    // Local: releases the file's lock until the next operation. A flush with nothing to write releases it.
    void LetOthersWrite() {
        if (m_dwFileID == 0 && IsOpen()) {
            FlushFileBuffers(m_hFile);
            FlushFileBuffers(m_hFile);
        }
    }
    // Ends the file at the current position.
    BOOL SetEndOfFile() { return m_dwFileID != 0 ? ServerEndOfFile() == SERVER_DONE : ::SetEndOfFile(m_hFile); }

    // ---- The plain requests, which do not check the ID. They return the server's answer, 0 when it is too short, or
    // the result of the failed exchange. ----

    static constexpr DWORD SERVER_DONE = 1;

    DWORD ServerSeekTo(ULONGLONG ullPosition) {
        return Ask(Request(VEX_FILE_SEEK_TO).Add(m_dwFileID).Add(static_cast<DWORD>(ullPosition)));
    }
    DWORD ServerSeekToBegin() { return Ask(Request(VEX_FILE_SEEK_TO_BEGIN).Add(m_dwFileID)); }
    DWORD ServerSeekToEnd() { return Ask(Request(VEX_FILE_SEEK_TO_END).Add(m_dwFileID)); }
    DWORD ServerFlush() { return Ask(Request(VEX_FILE_FLUSH).Add(m_dwFileID)); }
    DWORD ServerEndOfFile() { return Ask(Request(VEX_FILE_END_OF_FILE).Add(m_dwFileID)); }

    // For a forked child. The thread that used the object does not exist there, and may have stopped at any point.
    // Returns the handle, which the caller closes; null if there is none. A file of the server stays open, for the
    // parent. Do not use the object afterwards, and do not destroy it.
    HANDLE AbandonAfterFork() const {
        const HANDLE hFile = VEXLoadField(m_hFile);
        return IsFile(hFile) ? hFile : nullptr;
    }

private:
    // A request under construction. If an allocation fails, the packet stays shorter than m_cbRequest.
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

        // The last step: the whole request, with its length in the header; null when memory ran out.
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

    // Returns 0, or the result of the failed exchange.
    long SendRequest(Request& request, CSmartBuffer& objReply, DWORD dwTimeout) {
        const PBYTE pbRequest = request.Complete();
        const long lResult = pbRequest == nullptr
                                 ? PIPE_ERROR_SEND
                                 : m_pipcClient.SendMessageAndWait(VEX_FILE_SERVER_SESSION, VEX_FILE_SERVER_OBJECT,
                                                                   pbRequest, request.Size(), objReply, dwTimeout);
        m_bServerLost = lResult != 0;
        return lResult;
    }

    // For requests whose answer is one number.
    DWORD Ask(Request& request) {
        DWORD dwUnused = 0;
        return Ask(request, dwUnused);
    }
    // For requests whose answer is two numbers.
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

    // Ignores the content of the answer.
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

    // Fails on an answer with more bytes than requested, or fewer than it says.
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
