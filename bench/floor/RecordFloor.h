// The least that a trace record can cost: every required step by hand, and nothing else. It reads no level from a
// configuration file and does not handle forks or the end of the process.
//
// Any thread.
#pragma once

#include <pthread.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <cwchar>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace bench {

struct FloorLine {
    std::wstring strText;
    FloorLine* pNext;
};

// The queue between the tracing threads and the writer.
class FloorQueue {
public:
    FloorQueue() { sem_init(&m_posts, 0, 0); }
    FloorQueue(const FloorQueue&) = delete;
    FloorQueue& operator=(const FloorQueue&) = delete;

    void Append(std::unique_ptr<FloorLine> pLine) {
        FloorLine* const pNew = pLine.release();
        pthread_mutex_lock(&m_lock);
        if (m_pTail != nullptr) {
            m_pTail->pNext = pNew;
        } else {
            m_pHead = pNew;
        }
        m_pTail = pNew;
        pthread_mutex_unlock(&m_lock);
        sem_post(&m_posts);
    }

    void Wait() { sem_wait(&m_posts); }

    // Null if the queue is empty.
    std::unique_ptr<FloorLine> Take() {
        pthread_mutex_lock(&m_lock);
        std::unique_ptr<FloorLine> pLine(m_pHead);
        if (pLine != nullptr) {
            m_pHead = pLine->pNext;
            m_pTail = m_pHead != nullptr ? m_pTail : nullptr;
        }
        pthread_mutex_unlock(&m_lock);
        return pLine;
    }

private:
    pthread_mutex_t m_lock = PTHREAD_MUTEX_INITIALIZER;
    sem_t m_posts;
    FloorLine* m_pHead = nullptr;  // m_lock guards this and the next
    FloorLine* m_pTail = nullptr;
};

class FloorLog {
public:
    explicit FloorLog(const wchar_t* pszFileName) : m_strFileName(pszFileName) {}

    FloorQueue& Queue() { return m_queue; }
    const std::wstring& FileName() const { return m_strFileName; }

    // %s in the format means wide text.
    void Record(const wchar_t* pszType, const wchar_t* pszFile, const wchar_t* pszFunction, int nLine,
                const wchar_t* pszFormat, ...) {
        const std::wstring strFile(pszFile);
        const std::wstring strFunction(pszFunction);
        const std::wstring strType(pszType);
        std::wstring strFormat(pszFormat);
        for (std::size_t n; (n = strFormat.find(L"%s")) != std::wstring::npos;) {
            strFormat.replace(n, 2, L"%ls");
        }
        MakeDirectory();
        timeval now = {};
        gettimeofday(&now, nullptr);
        // Without TZ, the time zone is read once in a second.
        static thread_local std::time_t t_nSecond = 0;
        static thread_local std::tm t_local = {};
        if (now.tv_sec != t_nSecond || std::getenv("TZ") != nullptr) {
            t_nSecond = now.tv_sec;
            tzset();
            localtime_r(&t_nSecond, &t_local);
        }
        const std::tm& local = t_local;
        // The longest number has 11 characters, the texts and messages of the benchmarks 90.
        wchar_t szHeader[261];
        wchar_t* pch = szHeader;
        const auto add = [&pch](std::wstring_view text) { pch += text.copy(pch, text.size()); };
        const auto addNumber = [&add](int nNumber, std::ptrdiff_t nWidth) {
            wchar_t szDigits[12];
            wchar_t* const pchEnd = std::end(szDigits);
            wchar_t* pchDigit = pchEnd;
            for (unsigned u = static_cast<unsigned>(std::abs(nNumber)); u != 0 || pchEnd - pchDigit < nWidth; u /= 10) {
                *--pchDigit = static_cast<wchar_t>(L'0' + u % 10);
            }
            if (nNumber < 0) {
                *--pchDigit = L'-';
            }
            add({pchDigit, pchEnd});
        };
        const struct {
            std::wstring_view before;
            int nNumber;
            std::ptrdiff_t nWidth;
        } kNumbers[] = {{L"[P", getpid(), 4},
                        {L"] [T", static_cast<int>(pthread_self()), 4},
                        {L"] [", local.tm_year + 1900, 4},
                        {L"-", local.tm_mon + 1, 2},
                        {L"-", local.tm_mday, 2},
                        {L" ", local.tm_hour, 2},
                        {L":", local.tm_min, 2},
                        {L":", local.tm_sec, 2},
                        {L":", static_cast<int>(now.tv_usec), 3}};
        for (const auto& number : kNumbers) {
            add(number.before);
            addNumber(number.nNumber, number.nWidth);
        }
        for (const std::wstring_view text :
             {std::wstring_view(L"] ["), std::wstring_view(strFile), std::wstring_view(L"-"),
              std::wstring_view(strFunction), std::wstring_view(L"(")}) {
            add(text);
        }
        addNumber(nLine, 1);
        add(L")]: ");
        wchar_t szMessage[256];
        va_list arguments;
        va_start(arguments, pszFormat);
        std::vswprintf(szMessage, std::size(szMessage), strFormat.c_str(), arguments);
        va_end(arguments);

        auto pLine = std::make_unique<FloorLine>();
        const auto nHeader = static_cast<std::size_t>(pch - szHeader);
        const std::size_t nMessage = std::wcslen(szMessage);
        pLine->strText.reserve(strType.size() + nHeader + nMessage);
        pLine->strText.append(strType).append(szHeader, nHeader).append(szMessage, nMessage);
        m_queue.Append(std::move(pLine));
    }

private:
    // One system call if the directory exists.
    void MakeDirectory() const {
        wchar_t szDirectory[260] = {};
        m_strFileName.copy(szDirectory, 259);
        if (wchar_t* const pchEnd = std::wcsrchr(szDirectory, L'/')) {
            *pchEnd = 0;
        }
        char szNarrow[PATH_MAX];
        struct stat status {};
        if (std::wcstombs(szNarrow, szDirectory, sizeof szNarrow) < sizeof szNarrow && stat(szNarrow, &status) != 0) {
            mkdir(szNarrow, 0700);
        }
    }

    std::wstring m_strFileName;
    FloorQueue m_queue;
};

}  // namespace bench
