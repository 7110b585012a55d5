// The log's file as the writer thread uses it: opening, appending, cutting. For the writer thread only.
//
//   +------+---------------------------+---------------------------+--
//   | FFFE | record, CR LF CR LF       | record, CR LF CR LF       | ...
//   +------+---------------------------+---------------------------+--
//
// Nothing is reported: a record that cannot be written is lost.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <string>

#include "SmartBuffer.h"
#include "VEXCompat.h"
#include "VEXCstring.h"
#include "VEXForkPause.h"
#include "VEXType.h"
#include "VexFile.h"

class CDebugLogFile {
public:
    // The log's settings for one record.
    struct Settings {
        std::wstring strName;
        BOOL bFallbackName;       // the log made the name because it could not use another one
        BOOL bGlobalMode;         // the file stays open between records, without its lock
        DWORD dwMaxFileSize;      // bytes above which the file is cut
        DWORD dwTruncatePercent;  // the part of the file that a cut removes; 0: never cut
    };

    explicit CDebugLogFile(CVexFile& file) : m_file(file) {}
    CDebugLogFile(const CDebugLogFile&) = delete;
    CDebugLogFile& operator=(const CDebugLogFile&) = delete;

    // Appends a record, and cuts the file when it is too large. When the file needs a new name, fnReplaceName gets it
    // before a file of that name is opened. FALSE: the clock cannot be read for a new name, and the writer ends.
    // Throws std::bad_alloc; the caller then calls EndUseAfterFailure.
    template <typename TReplaceName>
    BOOL Write(const std::wstring& strLine, const Settings& settings, TReplaceName fnReplaceName) {
        CloseAfterSwitch();
        const Opened opened = m_file.IsOpen() ? Opened::Ready : Open(settings, fnReplaceName);
        if (opened == Opened::NoClock) {
            return FALSE;
        }
        if (opened == Opened::Ready) {
            const ULONGLONG ullFileSize = Append(strLine, settings.strName);
            if (settings.dwTruncatePercent != 0 && ullFileSize > settings.dwMaxFileSize) {
                Cut(ullFileSize, settings);
            }
        }
        EndUse(settings.bGlobalMode);
        return TRUE;
    }

    // Releases a local file's lock. A file of the server stays open: a request to the server would need memory.
    void EndUseAfterFailure(BOOL bGlobalMode) {
        if (m_file.GetFileID() == 0) {
            EndUse(bGlobalMode);
        }
    }

private:
    enum class Opened { Ready, RecordLost, NoClock };

    // The most bytes in one request to the file server. By default the server accepts up to 16 MiB.
    static constexpr std::size_t MAX_SERVER_PIECE = 0x100000;
    // A cut reads files up to this size even if other users may write to them.
    static constexpr ULONGLONG MAX_SHARED_CUT = 0x4000000;
    static constexpr std::size_t MAX_FALLBACK = 1023;  // characters
    static constexpr std::size_t HEADER_SIZE = 2;

    // Closes a file that was opened before the server was switched on or off.
    void CloseAfterSwitch() {
        const BOOL bOfServer = m_file.GetFileID() != 0;
        if (m_file.IsOpen() && bOfServer != m_file.IsServerSupportEnabled()) {
            m_file.CloseFile();
            m_file.ForgetServerFile();
        }
    }

    // Closing also ends the lock.
    void EndUse(BOOL bGlobalMode) {
        if (bGlobalMode) {
            m_file.LetOthersWrite();
        } else {
            m_file.CloseFile();
        }
    }

    // If the file gets a new name, the new file gets its header, but the record is lost. A fallback that cannot be
    // opened keeps its name: its directory is made with the next record.
    template <typename TReplaceName>
    Opened Open(const Settings& settings, TReplaceName fnReplaceName) {
        const std::wstring& strName = settings.strName;
        if (m_file.IsServerSupportEnabled()) {
            return OpenServerFile(strName) ? Opened::Ready : Opened::RecordLost;
        }
        DWORD dwError = ERROR_SUCCESS;
        if (!strName.empty() && !PathIsDirectoryW(strName.c_str())) {
            if (OpenLocalFile(strName, dwError)) {
                return Opened::Ready;
            }
            if (dwError == ERROR_SUCCESS || settings.bFallbackName) {
                return Opened::RecordLost;
            }
        }
        std::wstring strFallback;
        if (!MakeFallbackName(strName, strFallback)) {
            return Opened::NoClock;
        }
        fnReplaceName(strFallback);
        if (!PathIsDirectoryW(strFallback.c_str())) {
            OpenLocalFile(strFallback, dwError);
        }
        return Opened::RecordLost;
    }

    // " <name>.<date and time>" with the leading blank. FALSE: the time is unknown.
    static BOOL MakeFallbackName(const std::wstring& strName, std::wstring& strFallback) {
        wchar_t szName[MAX_FALLBACK + 1] = {};
        {
            const CVEXForkPause pause;
            std::tm local = {};
            int nMicroseconds = 0;
            if (!pause.LocalNow(local, nMicroseconds)) {
                return FALSE;
            }
            static_cast<void>(std::swprintf(szName, MAX_FALLBACK, L" %ls.%04d.%02d.%02d.%02d.%02d.%02d.%03d",
                                            strName.c_str(), local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                                            local.tm_hour, local.tm_min, local.tm_sec, nMicroseconds));
        }
        szName[MAX_FALLBACK - 1] = 0;
        strFallback = szName;
        return TRUE;
    }

    BOOL OpenLocalFile(const std::wstring& strName, DWORD& dwError) {
        if (!m_file.OpenFile(strName.c_str(), dwError)) {
            return FALSE;
        }
        if (dwError == ERROR_SUCCESS) {
            WriteHeader();
        }
        return TRUE;
    }

    // The server decides what the name means. The header goes to the end: others may append to a new file first.
    BOOL OpenServerFile(const std::wstring& strName) {
        DWORD dwError = ERROR_SUCCESS;
        if (!m_file.OpenFile(strName.c_str(), dwError)) {
            return FALSE;
        }
        return dwError != ERROR_SUCCESS || (m_file.SeekToEnd() && WriteHeader());
    }

    // For a server that answers but refuses a request. TRUE: it did not know the file, for instance because it was
    // restarted; now it has the file open with the position at its end.
    BOOL ReopenServerFile(const std::wstring& strName) {
        if (m_file.IsServerLost() || m_file.SeekToEnd() || m_file.IsServerLost()) {
            return FALSE;
        }
        m_file.ForgetServerFile();
        return OpenServerFile(strName) && m_file.SeekToEnd();
    }

    // Returns the file's size, 0 when it is unknown. A record that the locale cannot encode becomes an empty text with
    // its line ends. Failures are ignored, but if the server is lost, no further request is made for this record: each
    // one could take its whole time-out.
    ULONGLONG Append(const std::wstring& strLine, const std::wstring& strName) {
        constexpr const char* END = "\r\n\r\n";
        const CStringA strNarrow(strLine.c_str());
        const auto cbNarrow = static_cast<std::size_t>(strNarrow.GetLength());
        if (m_file.GetFileID() != 0) {
            if (!AppendToServerFile(std::string(strNarrow.GetString(), cbNarrow) + END, strName)) {
                return 0;
            }
            m_file.Flush();
        } else {
            m_file.SeekToEnd();
            WriteBytes(strNarrow.GetString(), cbNarrow);
            m_file.Flush();
            WriteBytes(END, std::strlen(END));
        }
        ULONGLONG ullFileSize = 0;
        m_file.GetFileSize(ullFileSize);
        return ullFileSize;
    }

    // One request, so that no other client's record comes between the text and its line ends. FALSE: the server did not
    // get it, or has no room for it.
    BOOL AppendToServerFile(const std::string& strEntry, const std::wstring& strName) {
        if (!m_file.SeekToEnd() && !ReopenServerFile(strName)) {
            return FALSE;
        }
        return WriteBytes(strEntry.data(), strEntry.size()) ||
               (ReopenServerFile(strName) && WriteBytes(strEntry.data(), strEntry.size()));
    }

    // Other users who may write to the file could make it larger than this process's memory.
    BOOL MayReadForCut(ULONGLONG ullFileSize, DWORD dwMaxFileSize) {
        return ullFileSize <= MAX_SHARED_CUT || (ullFileSize - 1) / 4 < dwMaxFileSize || !m_file.MayOthersWrite();
    }

    // Keeps the newest part behind a new header. The last two bytes are removed as well. Changes nothing unless it
    // could read the whole file.
    void Cut(ULONGLONG ullFileSize, const Settings& settings) {
        CSmartBuffer objContents;
        if (ullFileSize < HEADER_SIZE || !MayReadForCut(ullFileSize, settings.dwMaxFileSize) ||
            objContents.Alloc(ullFileSize) == nullptr) {
            return;
        }
        if (!m_file.SeekToBegin() || !ReadBytes(objContents.GetBytes(), ullFileSize)) {
            return;
        }
        const ULONGLONG ullLength = ullFileSize - HEADER_SIZE;
        const ULONGLONG ullKeep = KeptByCut(ullLength, settings.dwTruncatePercent);
        if (m_file.SeekToBegin() && WriteHeader() &&
            WriteBytes(objContents.GetBytes() + (ullLength - ullKeep), ullKeep)) {
            m_file.SetEndOfFile();
        }
    }

    // An even number of bytes, at most ullLength.
    static ULONGLONG KeptByCut(ULONGLONG ullLength, DWORD dwTruncatePercent) {
        const float fPart = static_cast<float>(dwTruncatePercent) / 100.0F;
        const float fCut = static_cast<float>(ullLength) * fPart;
        // Percentages above 100 and rounding remove no more than there is.
        const ULONGLONG ullCut =
            fCut < static_cast<float>(ullLength) ? std::min(static_cast<ULONGLONG>(fCut), ullLength) : ullLength;
        ULONGLONG ullKeep = ullLength - ullCut;
        ullKeep += ullKeep % 2;
        return ullKeep > ullLength ? ullKeep - 2 : ullKeep;  // the length is odd, and nothing is removed
    }

    BOOL WriteHeader() { return WriteBytes("\xFF\xFE", HEADER_SIZE); }

    // How much of cbData is transferred at a time.
    std::size_t PieceOf(std::size_t cbData) const {
        return m_file.GetFileID() != 0 ? std::min(cbData, MAX_SERVER_PIECE) : cbData;
    }

    // FALSE: not all bytes were read. The server may return less than a piece.
    BOOL ReadBytes(BYTE* pbData, std::size_t cbData) {
        const BOOL bOfServer = m_file.GetFileID() != 0;
        for (std::size_t cbDone = 0; cbDone < cbData;) {
            DWORD dwCount = PieceOf(cbData - cbDone);
            if (!m_file.Read(pbData + cbDone, dwCount) || dwCount == 0 || (!bOfServer && dwCount != cbData)) {
                return FALSE;
            }
            cbDone += dwCount;
        }
        return TRUE;
    }

    // FALSE: not all bytes were written.
    BOOL WriteBytes(const void* pData, std::size_t cbData) {
        const BYTE* const pbData = static_cast<const BYTE*>(pData);
        std::size_t cbDone = 0;
        do {
            const DWORD dwPiece = PieceOf(cbData - cbDone);
            DWORD dwCount = dwPiece;
            if (!m_file.Write(pbData + cbDone, dwCount) || dwCount != dwPiece || m_file.IsServerLost()) {
                return FALSE;
            }
            cbDone += dwPiece;
        } while (cbDone < cbData);
        return TRUE;
    }

    CVexFile& m_file;
};
