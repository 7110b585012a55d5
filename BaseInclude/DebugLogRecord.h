// The text of a record of the log, made on the thread that traces. docs/diagnostic-log.md shows one.
#pragma once

#include <pthread.h>
#include <unistd.h>

#include <cstdarg>
#include <cstddef>
#include <ctime>
#include <cwchar>
#include <memory>
#include <string>
#include <string_view>

#include "VEXForkPause.h"
#include "VEXType.h"

class CDebugLogRecord {
public:
    // Replaces each %s of a trace's format by %ls: both mean wide text in a trace. Throws std::logic_error for null.
    static std::wstring TraceFormat(LPCTSTR lpszFormat) {
        std::wstring strFormat(lpszFormat);
        for (std::size_t nFound; (nFound = strFormat.find(L"%s")) != std::wstring::npos;) {
            strFormat.replace(nFound, 2, L"%ls");
        }
        return strFormat;
    }

    // The header: process, thread, local time, and the place that traces; the function only if its name is not null.
    // FALSE: the time is unknown.
    BOOL FormatHeader(LPCTSTR lpszSrcFileName, LPCTSTR lpszFunctionName, DWORD dwSrcLineNumber) {
        const CVEXForkPause pause;
        std::tm local = {};
        int nMicroseconds = 0;
        if (!pause.LocalNow(local, nMicroseconds)) {
            return FALSE;
        }
        const auto nThread = static_cast<int>(pthread_self());
        const auto nLine = static_cast<int>(dwSrcLineNumber);
        const LPCTSTR lpszDash = lpszFunctionName != nullptr ? L"-" : L"";
        const LPCTSTR lpszFunction = lpszFunctionName != nullptr ? lpszFunctionName : L"";
        // The last field of the time has microseconds, padded to three digits. The limits of the texts are longer than
        // the header; they keep libc from failing on very long texts before the header is cut.
        static_cast<void>(std::swprintf(
            m_szHeader, MAX_HEADER, L"[P%04d] [T%04d] [%04d-%02d-%02d %02d:%02d:%02d:%03d] [%.260ls%ls%.260ls(%d)]: ",
            getpid(), nThread, local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
            local.tm_sec, nMicroseconds, lpszSrcFileName, lpszDash, lpszFunction, nLine));
        m_szHeader[MAX_HEADER - 1] = 0;
        return TRUE;
    }

    void FormatMessage(LPCTSTR lpszFormat, va_list args) {
        m_pszMessage = std::make_unique<wchar_t[]>(MAX_MESSAGE);
        {
            const CVEXForkPause pause;
            static_cast<void>(std::vswprintf(m_pszMessage.get(), MAX_MESSAGE, lpszFormat, args));
        }
        m_pszMessage[MAX_MESSAGE - 1] = 0;
    }

    // The whole record in a text that is no larger than needed. strLogHeader comes directly before the message.
    std::wstring Line(LPCTSTR lpszLogType, const std::wstring& strLogHeader) const {
        const std::wstring_view strType(lpszLogType != nullptr ? lpszLogType : L"");
        const std::wstring_view strHeader(m_szHeader);
        const std::wstring_view strMessage(m_pszMessage.get());
        std::wstring strLine;
        strLine.reserve(strType.size() + strHeader.size() + strLogHeader.size() + strMessage.size());
        strLine.append(strType).append(strHeader).append(strLogHeader).append(strMessage);
        return strLine;
    }

private:
    static constexpr std::size_t MAX_HEADER = 260;  // both in characters
    static constexpr std::size_t MAX_MESSAGE = 8192;

    wchar_t m_szHeader[MAX_HEADER + 1] = {};
    std::unique_ptr<wchar_t[]> m_pszMessage;
};
