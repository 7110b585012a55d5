// The text of a record of the log, made on the thread that traces. docs/diagnostic-log.md shows one.
#pragma once

#include <pthread.h>
#include <unistd.h>

#include <array>
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
        // The same text as "[P%04d] [T%04d] [%04d-%02d-%02d %02d:%02d:%02d:%03d] [%ls-%ls(%d)]: ", for which wide
        // printf takes a third of a record's time.
        m_cchHeader = 0;
        Add(L"[P").AddNumber(getpid(), 4).Add(L"] [T").AddNumber(static_cast<int>(pthread_self()), 4);
        Add(L"] [").AddNumber(local.tm_year + 1900, 4).Add(L"-").AddNumber(local.tm_mon + 1, 2);
        Add(L"-").AddNumber(local.tm_mday, 2).Add(L" ").AddNumber(local.tm_hour, 2);
        Add(L":").AddNumber(local.tm_min, 2).Add(L":").AddNumber(local.tm_sec, 2);
        Add(L":").AddNumber(nMicroseconds, 3).Add(L"] [").Add(lpszSrcFileName);
        if (lpszFunctionName != nullptr) {
            Add(L"-").Add(lpszFunctionName);
        }
        Add(L"(").AddNumber(static_cast<int>(dwSrcLineNumber), 1).Add(L")]: ");
        return TRUE;
    }

    void FormatMessage(LPCTSTR lpszFormat, va_list args) {
        va_list first;
        va_copy(first, args);
        const BOOL bFits = Format(m_szMessage.data(), m_szMessage.size(), lpszFormat, first);
        va_end(first);
        if (!bFits) {
            // What fits, or what precedes an error, is the message.
            m_pszLongMessage = std::make_unique<wchar_t[]>(MAX_MESSAGE);
            static_cast<void>(Format(m_pszLongMessage.get(), MAX_MESSAGE, lpszFormat, args));
            m_pszLongMessage[MAX_MESSAGE - 1] = 0;
        }
    }

    // The whole record in a text that is no larger than needed. strLogHeader comes directly before the message.
    std::wstring Line(LPCTSTR lpszLogType, const std::wstring& strLogHeader) const {
        const std::wstring_view strType(lpszLogType != nullptr ? lpszLogType : L"");
        const std::wstring_view strHeader(m_szHeader.data(), m_cchHeader);
        const std::wstring_view strMessage(m_pszLongMessage ? m_pszLongMessage.get() : m_szMessage.data());
        std::wstring strLine;
        strLine.reserve(strType.size() + strHeader.size() + strLogHeader.size() + strMessage.size());
        strLine.append(strType).append(strHeader).append(strLogHeader).append(strMessage);
        return strLine;
    }

private:
    static constexpr std::size_t MAX_HEADER = 259;    // in characters
    static constexpr std::size_t MAX_MESSAGE = 8192;  // with the terminator
    // With the terminator. A buffer for the longest message at each record costs malloc more time than the formatting.
    static constexpr std::size_t MAX_SHORT_MESSAGE = 256;

    // FALSE: the message does not fit, or the format or an argument is wrong.
    static BOOL Format(wchar_t* psz, std::size_t cch, LPCTSTR lpszFormat, va_list args) {
        const CVEXForkPause pause;
        return std::vswprintf(psz, cch, lpszFormat, args) >= 0;
    }

    // Adds to the header what still fits.
    CDebugLogRecord& Add(std::wstring_view strText) {
        m_cchHeader += strText.copy(m_szHeader.data() + m_cchHeader, MAX_HEADER - m_cchHeader);
        return *this;
    }

    // Like %0*d: with zeros in front, and the sign counts.
    CDebugLogRecord& AddNumber(int nNumber, std::ptrdiff_t nWidth) {
        const BOOL bNegative = nNumber < 0;
        std::array<wchar_t, 12> text;
        wchar_t* pch = text.end();
        unsigned int uRest = bNegative ? 0U - static_cast<unsigned int>(nNumber) : static_cast<unsigned int>(nNumber);
        do {
            *--pch = L'0' + static_cast<wchar_t>(uRest % 10);
            uRest /= 10;
        } while (uRest != 0 || text.end() - pch < nWidth - bNegative);
        if (bNegative) {
            *--pch = L'-';
        }
        return Add({pch, static_cast<std::size_t>(text.end() - pch)});
    }

    std::array<wchar_t, MAX_HEADER> m_szHeader;
    std::size_t m_cchHeader = 0;
    std::array<wchar_t, MAX_SHORT_MESSAGE> m_szMessage;
    std::unique_ptr<wchar_t[]> m_pszLongMessage;  // if it is not null, it has the message
};
