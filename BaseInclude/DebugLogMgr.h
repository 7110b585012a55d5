// The diagnostic log: trace records are made on the calling thread, queued, and written by one thread of the log.
//
// Threads: everything may be called from any thread. Tracing threads take m_csLogCache to link their record in, and
// nothing else that waits for the disk; a full or stalled disk costs memory, not their time. Fields that the log
// touches without a lock are accessed atomically.
//
// End of the process: the exit handler waits one second for the writer, and no longer. Then whoever is the last to
// leave the manager destroys it; a thread that comes later finds it closed and its record is dropped.
//
// fork: the child begins with an empty queue and no writer. Its first record starts one. Records that were queued when
// it was made are the parent's to write.
//
// Errors: none is reported. Running out of memory throws std::bad_alloc on tracing threads and costs the writer a
// record; a null format throws std::logic_error.
#pragma once

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <clocale>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "CVEXCritical.h"
#include "DebugLogShared.h"
#include "SmartBuffer.h"
#include "VEXAtomicField.h"
#include "VEXCompat.h"
#include "VEXCstring.h"
#include "VEXForkPause.h"
#include "VEXType.h"
#include "VexFile.h"

// A queued record. The queue is linked from the oldest to the newest.
typedef struct LogCacheList {
    std::wstring strLog;  // complete but for the line ends
    LogCacheList* next;
} * PLOGCACHELIST;

class CDebugLogMgr {
public:
    // One place that traces. Called like a function it writes a record: a wide printf format and its arguments, in
    // which %s is wide text, like %ls.
    class MacroHelper {
    public:
        // Null pointers are empty texts. nLogLevel: records below the level of /var/log.ini are dropped, at no cost in
        // memory.
        MacroHelper(LPCTSTR lpszLogType, int nLogLevel, LPCTSTR lpszSrcFileName, LPCTSTR lpszFunctionName,
                    DWORD dwSrcLineNumber);
        void operator()(LPCTSTR lpszFormat, ...);

    private:
        std::wstring m_strLogType;
        std::wstring m_strSrcFileName;
        std::wstring m_strSrcFunctionName;
        DWORD m_dwSrcLineNumber;
        int m_curLogLevel;
    };

    // The only one; made, with its writer thread, by the first call. Always the same address.
    static CDebugLogMgr* GetInstance();
    virtual ~CDebugLogMgr();

    // Whether records of that level are dropped for certain, at the price of one comparison. Before there is a log it
    // is not known.
    static BOOL IsDropped(int nLogLevel) {
        const int* const pLevel = s_pLogLevel.load(std::memory_order_acquire);
        return pLevel != nullptr && nLogLevel < *pLevel;
    }
    // Whether records of that level are written at all now.
    static BOOL IsWritten(int nLogLevel);

    // Queues one record. Dropped: levels below the configured one, a null file name or format.
    void OutputArgs(LPCTSTR lpszLogType, int nLogLevel, LPCTSTR lpszSrcFileName, LPCTSTR lpszFunctionName,
                    DWORD dwSrcLineNumber, LPCTSTR lpszFormat, va_list args);
    // The same for a text that is no format, at level 1.
    void Output(LPCTSTR lpszLogType, LPCTSTR lpszSrcFileName, LPCTSTR lpszFunctionName, DWORD dwSrcLineNumber,
                LPCTSTR lpszText);

    // They hold from the next record on that is written or, for the header, made.
    void SetLogFileName(LPCTSTR lpszLogFileName);  // empty: the default name
    // Size in bytes above which the file is cut, and the percentage of it that goes; percentage 0: never.
    void SetTruncate(DWORD dwMaxFileSize, DWORD dwTruncatePercent);
    void SetLogHeader(LPCTSTR lpszLogHeader);  // stands before the message of every record
    void EnableOutput(BOOL bEnable);           // 0: the writer drops what it takes from the queue
    void WithFunctionName(BOOL bEnable);       // each record decides by its function name nevertheless
    void EnableGlobalMode(BOOL bEnable);       // the file stays open between records, without its lock
    // Through the file server, of whose files the log's is then one; see VexFile.h. Without the server the records of
    // that time are lost.
    void EnableServerSupport(BOOL bEnable);
    int GetLogLevel() { return m_logLevel; }
    // Drops the queued records.
    BOOL Clear();

    BOOL CreateWriteLogThread();
    static void* WriteLogThreadProc(LPVOID lpParameter);

private:
    static constexpr LPCTSTR DEFAULT_NAME = L"/tmp/PILog.txt";
    static constexpr int DEFAULT_LEVEL = 1;
    static constexpr std::size_t MAX_DIRECTORY = 260;  // characters, as the next three
    static constexpr std::size_t MAX_HEADER = 260;
    static constexpr std::size_t MAX_MESSAGE = 8192;
    static constexpr std::size_t MAX_FALLBACK = 1023;
    // Bytes of a request to the file server, which takes 16 MiB unless it is told otherwise.
    static constexpr std::size_t MAX_SERVER_PIECE = 0x100000;
    // Files up to this size are read for a cut whoever may write to them.
    static constexpr ULONGLONG MAX_SHARED_CUT = 0x4000000;

    // The local time, in the parts that records and fallback names show.
    struct Moment {
        std::tm local;
        int nMicroseconds;
    };

    // Keeps the manager alive for its scope, unless it is closed already.
    class CUse {
    public:
        CUse() : m_bGranted(CDebugLogUsers::Enter()) {}
        // Takes over what the thread's creator entered for it.
        explicit CUse(std::adopt_lock_t) : m_bGranted(TRUE) {}
        CUse(const CUse&) = delete;
        CUse& operator=(const CUse&) = delete;
        ~CUse() {
            if (m_bGranted && CDebugLogUsers::Leave()) {
                s_pInstance.load(std::memory_order_acquire)->~CDebugLogMgr();
            }
        }
        BOOL IsGranted() const { return m_bGranted; }

    private:
        const BOOL m_bGranted;
    };

    enum class Opened { Ready, LineGivenUp, NoClock };

    CDebugLogMgr();
    CDebugLogMgr(const CDebugLogMgr&);  // not defined

    static CDebugLogMgr* CreateInstance();
    static void ExitHandler();
    static void BeforeFork();
    static void AfterForkInParent();
    static void AfterForkInChild();

    static BOOL Now(const CVEXForkPause& pause, Moment& moment);

    void SignalExit();
    void RestartAfterFork();
    void OutputText(LPCTSTR lpszLogType, LPCTSTR lpszSrcFileName, LPCTSTR lpszFunctionName, DWORD dwSrcLineNumber,
                    LPCTSTR lpszFormat, ...);
    void MakeLogDirectory();
    static BOOL FormatHeader(wchar_t (&szHeader)[MAX_HEADER + 1], LPCTSTR lpszSrcFileName, LPCTSTR lpszFunctionName,
                             DWORD dwSrcLineNumber);
    void AppendLogHeader(std::wstring& strLine);
    void QueueLine(std::unique_ptr<LogCacheList> pNode);

    static void LetOthersFinishFirst();
    void WriteQueuedLines();
    BOOL IsExiting();
    std::unique_ptr<LogCacheList> TakeLine();
    void DiscardLines();
    BOOL WriteLineOrLoseIt(const std::wstring& strLine);
    BOOL WriteLine(const std::wstring& strLine);
    Opened OpenLogFile();
    BOOL ReplaceByFallbackName(std::wstring& strName);
    void AppendLine(const std::wstring& strLine, ULONGLONG& ullFileSize);
    void CutLogFile(ULONGLONG ullFileSize);
    BOOL OpenServerFile();
    BOOL ReopenServerFile();
    BOOL AppendToServerFile(const CStringA& strNarrow, const char* pszEnd);
    BOOL MayReadForCut(ULONGLONG ullFileSize);
    std::size_t PieceOf(std::size_t cbData);
    BOOL ReadBytes(BYTE* pbData, std::size_t cbData);
    BOOL WriteBytes(const void* pData, std::size_t cbData);
    void EndUseOfFile();

    std::wstring LogFileName();
    void ReplaceLogFileName(std::wstring strName);

    std::wstring m_strLogFileName;  // guarded by s_csTexts, as is the next
    std::wstring m_strLogHeader;
    BOOL m_bOutputLogToFile;
    BOOL m_bWithFunctionName;
    DWORD m_dwMaxFileSize;
    DWORD m_dwTruncatePercent;
    CVexFile m_logFile;  // the writer's alone
    HANDLE m_hEvent;
    BOOL m_bGlobalMode;
    PLOGCACHELIST m_logCacheHead;  // guarded by m_csLogCache, as are the next and the nodes
    PLOGCACHELIST m_logCacheTail;
    int m_logLevel;
    int m_thread;
    sem_t m_sem;
    int exit_flag;
    CVEXCritical m_csLogCache;

    // Outside the object because they have to outlive it, or to be there before it.
    inline static std::atomic<CDebugLogMgr*> s_pInstance{nullptr};
    // Where m_logLevel is, and from the process's end on that of a log that drops everything.
    inline static std::atomic<const int*> s_pLogLevel{nullptr};
    static constexpr int DROPS_ALL = INT_MAX;
    inline static std::atomic<BOOL> s_bChildWithoutWriter{FALSE};  // forked, and nothing logged since
    inline static BOOL s_bHeldForFork = FALSE;                     // of the thread that forks
    // Held while the instance is made, or is given a writer in a forked child.
    inline static pthread_mutex_t s_csInstance = PTHREAD_MUTEX_INITIALIZER;
    // Held to replace the name or the header, or to copy it; never while the disk is waited for.
    inline static pthread_mutex_t s_csTexts = PTHREAD_MUTEX_INITIALIZER;
    // At load time, before there can be a thread that makes the instance while another forks.
    [[maybe_unused]] inline static const int s_nForkHandlers =
        pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
};

// ---- Tracing ----

inline CDebugLogMgr::MacroHelper::MacroHelper(LPCTSTR lpszLogType, int nLogLevel, LPCTSTR lpszSrcFileName,
                                              LPCTSTR lpszFunctionName, DWORD dwSrcLineNumber)
    : m_dwSrcLineNumber(dwSrcLineNumber), m_curLogLevel(nLogLevel) {
    // The level of the log stays what it is once there is a log: what is dropped now needs no texts later.
    if (IsDropped(nLogLevel)) {
        return;
    }
    if (lpszSrcFileName != nullptr) {
        m_strSrcFileName = lpszSrcFileName;
    }
    if (lpszFunctionName != nullptr) {
        m_strSrcFunctionName = lpszFunctionName;
    }
    if (lpszLogType != nullptr) {
        m_strLogType = lpszLogType;
    }
}

inline void CDebugLogMgr::MacroHelper::operator()(LPCTSTR lpszFormat, ...) {
    // Asked before the format is copied. A null format is an error anyhow.
    if (lpszFormat != nullptr && !IsWritten(m_curLogLevel)) {
        return;
    }
    std::wstring strFormat(lpszFormat);
    for (std::size_t nFound; (nFound = strFormat.find(L"%s")) != std::wstring::npos;) {
        strFormat.replace(nFound, 2, L"%ls");
    }
    va_list args;
    va_start(args, lpszFormat);
    struct ArgumentsEnd {  // also when a record's allocation throws
        va_list& args;
        ~ArgumentsEnd() { va_end(args); }
    } const end{args};
    GetInstance()->OutputArgs(m_strLogType.c_str(), m_curLogLevel, m_strSrcFileName.c_str(),
                              m_strSrcFunctionName.c_str(), m_dwSrcLineNumber, strFormat.c_str(), args);
}

inline BOOL CDebugLogMgr::IsWritten(int nLogLevel) {
    if (IsDropped(nLogLevel)) {
        return FALSE;
    }
    GetInstance();
    return !CDebugLogUsers::IsClosed() && !IsDropped(nLogLevel);
}

inline void CDebugLogMgr::OutputArgs(LPCTSTR lpszLogType, int nLogLevel, LPCTSTR lpszSrcFileName,
                                     LPCTSTR lpszFunctionName, DWORD dwSrcLineNumber, LPCTSTR lpszFormat,
                                     va_list args) {
    const CUse use;
    if (!use.IsGranted() || m_logLevel > nLogLevel) {
        return;
    }
    // This record's form is its own affair: another thread may set the field for its record before it is read here.
    const BOOL bWithFunctionName = lpszFunctionName != nullptr && *lpszFunctionName != 0;
    VEXStoreField(m_bWithFunctionName, bWithFunctionName);
    if (lpszSrcFileName == nullptr || lpszFormat == nullptr) {
        return;
    }
    RestartAfterFork();
    MakeLogDirectory();

    wchar_t szHeader[MAX_HEADER + 1] = {};
    if (!FormatHeader(szHeader, lpszSrcFileName, bWithFunctionName ? lpszFunctionName : nullptr, dwSrcLineNumber)) {
        return;
    }
    const auto pszMessage = std::make_unique<wchar_t[]>(MAX_MESSAGE);
    {
        const CVEXForkPause pause;
        static_cast<void>(std::vswprintf(pszMessage.get(), MAX_MESSAGE, lpszFormat, args));
    }
    pszMessage[MAX_MESSAGE - 1] = 0;

    // Put together in its node, which has the memory that it takes and no more.
    const std::wstring_view strType(lpszLogType != nullptr ? lpszLogType : L"");
    const std::wstring_view strHeader(szHeader);
    const std::wstring_view strMessage(pszMessage.get());
    std::unique_ptr<LogCacheList> pNode(new LogCacheList{{}, nullptr});
    std::wstring& strLine = pNode->strLog;
    strLine.reserve(strType.size() + strHeader.size() + strMessage.size());
    strLine.append(strType).append(strHeader);
    AppendLogHeader(strLine);
    strLine.append(strMessage);
    QueueLine(std::move(pNode));
}

// The header of a record of this moment and thread. FALSE: there is no time. A null function name: the form without.
inline BOOL CDebugLogMgr::FormatHeader(wchar_t (&szHeader)[MAX_HEADER + 1], LPCTSTR lpszSrcFileName,
                                       LPCTSTR lpszFunctionName, DWORD dwSrcLineNumber) {
    const CVEXForkPause pause;
    Moment moment = {};
    if (!Now(pause, moment)) {
        return FALSE;
    }
    const auto nThread = static_cast<int>(pthread_self());
    const auto nLine = static_cast<int>(dwSrcLineNumber);
    const std::tm& local = moment.local;
    // The last field of the time has microseconds, of which it pads to three digits. The limits of the texts, which are
    // longer than the header, keep libc from giving up on very long ones before the cut.
    if (lpszFunctionName != nullptr) {
        static_cast<void>(std::swprintf(
            szHeader, MAX_HEADER, L"[P%04d] [T%04d] [%04d-%02d-%02d %02d:%02d:%02d:%03d] [%.260ls-%.260ls(%d)]: ",
            getpid(), nThread, local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
            local.tm_sec, moment.nMicroseconds, lpszSrcFileName, lpszFunctionName, nLine));
    } else {
        static_cast<void>(
            std::swprintf(szHeader, MAX_HEADER, L"[P%04d] [T%04d] [%04d-%02d-%02d %02d:%02d:%02d:%03d] [%.260ls(%d)]: ",
                          getpid(), nThread, local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                          local.tm_min, local.tm_sec, moment.nMicroseconds, lpszSrcFileName, nLine));
    }
    szHeader[MAX_HEADER - 1] = 0;
    return TRUE;
}

inline void CDebugLogMgr::Output(LPCTSTR lpszLogType, LPCTSTR lpszSrcFileName, LPCTSTR lpszFunctionName,
                                 DWORD dwSrcLineNumber, LPCTSTR lpszText) {
    if (lpszText != nullptr) {
        OutputText(lpszLogType, lpszSrcFileName, lpszFunctionName, dwSrcLineNumber, L"%ls", lpszText);
    }
}

inline void CDebugLogMgr::OutputText(LPCTSTR lpszLogType, LPCTSTR lpszSrcFileName, LPCTSTR lpszFunctionName,
                                     DWORD dwSrcLineNumber, LPCTSTR lpszFormat, ...) {
    va_list args;
    va_start(args, lpszFormat);
    OutputArgs(lpszLogType, DEFAULT_LEVEL, lpszSrcFileName, lpszFunctionName, dwSrcLineNumber, lpszFormat, args);
    va_end(args);
}

// A directory that cannot be made shows when the file is opened.
inline void CDebugLogMgr::MakeLogDirectory() {
    wchar_t szDirectory[MAX_DIRECTORY] = {};
    {
        const CDebugLogLock lock(s_csTexts);
        if (m_strLogFileName.empty()) {
            m_strLogFileName = DEFAULT_NAME;
            return;
        }
        wcscpy_s(szDirectory, MAX_DIRECTORY, m_strLogFileName.c_str());
    }
    PathRemoveFileSpecW(szDirectory);
    SHCreateDirectoryExW(nullptr, szDirectory, nullptr);
}

inline void CDebugLogMgr::AppendLogHeader(std::wstring& strLine) {
    const CDebugLogLock lock(s_csTexts);
    strLine.append(m_strLogHeader);
}

inline void CDebugLogMgr::QueueLine(std::unique_ptr<LogCacheList> pNode) {
    LogCacheList* const pNew = pNode.release();
    m_csLogCache.EnterVEXCritical();
    if (m_logCacheTail != nullptr) {
        m_logCacheTail->next = pNew;
        m_logCacheTail = pNew;
    } else {
        m_logCacheHead = m_logCacheTail = pNew;
    }
    m_csLogCache.LeaveVEXCritical();
    sem_post(&m_sem);
}

inline BOOL CDebugLogMgr::Now(const CVEXForkPause& pause, Moment& moment) {
    timeval time = {};
    if (gettimeofday(&time, nullptr) != 0) {
        return FALSE;
    }
    moment.nMicroseconds = static_cast<int>(time.tv_usec);
    return pause.LocalTime(time.tv_sec, moment.local);
}

// ---- Configuration ----

inline std::wstring CDebugLogMgr::LogFileName() {
    const CDebugLogLock lock(s_csTexts);
    return m_strLogFileName;
}

inline void CDebugLogMgr::ReplaceLogFileName(std::wstring strName) {
    const CDebugLogLock lock(s_csTexts);
    m_strLogFileName.swap(strName);
}

inline void CDebugLogMgr::SetLogFileName(LPCTSTR lpszLogFileName) {
    const CUse use;
    if (use.IsGranted()) {
        ReplaceLogFileName(lpszLogFileName != nullptr ? lpszLogFileName : L"");
    }
}

inline void CDebugLogMgr::SetTruncate(DWORD dwMaxFileSize, DWORD dwTruncatePercent) {
    VEXStoreField(m_dwMaxFileSize, dwMaxFileSize);
    VEXStoreField(m_dwTruncatePercent, dwTruncatePercent);
}

inline void CDebugLogMgr::SetLogHeader(LPCTSTR lpszLogHeader) {
    const CUse use;
    if (!use.IsGranted()) {
        return;
    }
    std::wstring strHeader(lpszLogHeader != nullptr ? lpszLogHeader : L"");
    const CDebugLogLock lock(s_csTexts);
    m_strLogHeader.swap(strHeader);
}

inline void CDebugLogMgr::EnableOutput(BOOL bEnable) {
    VEXStoreField(m_bOutputLogToFile, bEnable);
}

inline void CDebugLogMgr::WithFunctionName(BOOL bEnable) {
    VEXStoreField(m_bWithFunctionName, bEnable);
}

inline void CDebugLogMgr::EnableGlobalMode(BOOL bEnable) {
    VEXStoreField(m_bGlobalMode, bEnable);
}

inline void CDebugLogMgr::EnableServerSupport(BOOL bEnable) {
    const CUse use;
    if (use.IsGranted()) {
        m_logFile.EnableServerSupport(bEnable);
    }
}

inline BOOL CDebugLogMgr::Clear() {
    const CUse use;
    if (use.IsGranted()) {
        DiscardLines();
    }
    return use.IsGranted();
}

// ---- Life ----

// A lock and no local static object: a fork has to wait until the instance is whole, or the child would wait for ever.
inline CDebugLogMgr* CDebugLogMgr::GetInstance() {
    CDebugLogMgr* const pMgr = s_pInstance.load(std::memory_order_acquire);
    if (pMgr != nullptr) {
        return pMgr;
    }
    const CDebugLogLock lock(s_csInstance);
    return s_pInstance.load(std::memory_order_relaxed) != nullptr ? s_pInstance.load(std::memory_order_relaxed)
                                                                  : CreateInstance();
}

// In storage that stays, as the last thread to leave may do so when other objects of static duration are gone.
inline CDebugLogMgr* CDebugLogMgr::CreateInstance() {
    alignas(CDebugLogMgr) static unsigned char s_storage[sizeof(CDebugLogMgr)];
    CDebugLogMgr* const pMgr = ::new (static_cast<void*>(s_storage)) CDebugLogMgr;
    s_pInstance.store(pMgr, std::memory_order_release);
    s_pLogLevel.store(&pMgr->m_logLevel, std::memory_order_release);
    static_cast<void>(std::atexit(ExitHandler));
    return pMgr;
}

inline CDebugLogMgr::CDebugLogMgr() : m_hEvent(nullptr) {
    m_bOutputLogToFile = TRUE;
    m_bGlobalMode = FALSE;
    m_bWithFunctionName = TRUE;
    m_dwMaxFileSize = 0x200000;
    m_dwTruncatePercent = 20;
    m_logLevel = DEFAULT_LEVEL;
    // For the whole process, on purpose: the conversions to narrow text follow it.
    static_cast<void>(std::setlocale(LC_ALL, ""));
    // libc loads a locale's conversions when they are first used, under a lock that a forked child would find locked
    // for ever: now, while no fork can come between. For an ASCII character they would not be needed.
    static_cast<void>(std::btowc(0x80));
    sem_init(&m_sem, 0, 0);
    exit_flag = 0;
    m_thread = 0;
    ReplaceLogFileName(DEFAULT_NAME);
    char szProfile[260] = {};
    static_cast<void>(std::snprintf(szProfile, sizeof(szProfile), "%s%s", "/var/log", ".ini"));
    m_logLevel = static_cast<int>(GetPrivateProfileIntA("loginfo", "logLevel", DEFAULT_LEVEL, szProfile));
    m_logCacheHead = m_logCacheTail = nullptr;
    CreateWriteLogThread();
}

// Nobody else is in the manager: neither a tracing thread nor the writer.
inline CDebugLogMgr::~CDebugLogMgr() {
    sem_destroy(&m_sem);
    if (VEXLoadField(m_bGlobalMode)) {
        m_logFile.CloseFile();
        m_logFile.ForgetServerFile();
    }
    DiscardLines();
}

inline void CDebugLogMgr::SignalExit() {
    if (m_hEvent != nullptr && m_hEvent != INVALID_HANDLE_VALUE) {
        CloseHandle(m_hEvent);
        m_hEvent = nullptr;
    }
    __atomic_store_n(&exit_flag, 1, __ATOMIC_RELEASE);
    sem_post(&m_sem);
}

// The part of the manager's end that must not be put off. The rest is done here as well if everybody has left by then,
// else by the last one to leave: a writer that is still in a slow file operation finds everything in its place.
inline void CDebugLogMgr::ExitHandler() {
    if (s_bChildWithoutWriter.load(std::memory_order_acquire)) {
        CDebugLogUsers::Close();  // this process has logged nothing, and what it has of the parent's is not its own
        return;
    }
    CDebugLogMgr* const pMgr = s_pInstance.load(std::memory_order_acquire);
    pMgr->SignalExit();
    sleep(1);
    s_pLogLevel.store(&DROPS_ALL, std::memory_order_release);
    if (CDebugLogUsers::Close()) {
        pMgr->~CDebugLogMgr();
    }
}

// The child finds the queue and the texts whole, and none of the log's locks held by a thread that it has not.
inline void CDebugLogMgr::BeforeFork() {
    pthread_mutex_lock(&s_csInstance);
    pthread_mutex_lock(&s_csTexts);
    s_bHeldForFork = s_pInstance.load(std::memory_order_acquire) != nullptr && CDebugLogUsers::Enter();
    if (s_bHeldForFork) {
        s_pInstance.load(std::memory_order_acquire)->m_csLogCache.EnterVEXCritical();
    }
}

inline void CDebugLogMgr::AfterForkInParent() {
    CDebugLogMgr* const pMgr = s_pInstance.load(std::memory_order_acquire);
    const BOOL bHeld = s_bHeldForFork;
    if (bHeld) {
        pMgr->m_csLogCache.LeaveVEXCritical();
    }
    pthread_mutex_unlock(&s_csTexts);
    pthread_mutex_unlock(&s_csInstance);
    if (bHeld && CDebugLogUsers::Leave()) {
        pMgr->~CDebugLogMgr();
    }
}

inline void CDebugLogMgr::AfterForkInChild() {
    if (s_bHeldForFork) {
        CDebugLogMgr* const pMgr = s_pInstance.load(std::memory_order_acquire);
        // Freed by RestartAfterFork, outside the fork.
        pMgr->m_csLogCache.LeaveVEXCritical();
        pMgr->m_thread = 0;
        sem_init(&pMgr->m_sem, 0, 0);
        CDebugLogUsers::Reset();
        s_bChildWithoutWriter.store(TRUE, std::memory_order_release);
    }
    pthread_mutex_unlock(&s_csTexts);
    pthread_mutex_unlock(&s_csInstance);
}

inline void CDebugLogMgr::RestartAfterFork() {
    if (!s_bChildWithoutWriter.load(std::memory_order_acquire)) {
        return;
    }
    const CDebugLogLock lock(s_csInstance);
    if (!s_bChildWithoutWriter.load(std::memory_order_relaxed)) {
        return;
    }
    DiscardLines();
    // The writer that the parent has may have been in the middle of changing the file object.
    const HANDLE hFile = m_logFile.AbandonAfterFork();
    const BOOL bServer = m_logFile.IsServerSupportEnabled();
    ::new (static_cast<void*>(&m_logFile)) CVexFile(CPipeIPC::ForForkedChild{});
    m_logFile.EnableServerSupport(bServer);
    if (hFile != nullptr) {
        CloseHandle(hFile);
    }
    CreateWriteLogThread();
    s_bChildWithoutWriter.store(FALSE, std::memory_order_release);
}

// ---- The writer ----

inline BOOL CDebugLogMgr::CreateWriteLogThread() {
    if (m_thread != 0) {
        return TRUE;
    }
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread = {};
    const BOOL bEntered = CDebugLogUsers::Enter();  // for the new thread
    // It is created with every signal blocked: the host's signals go to the host's threads, and a file that may not
    // grow (SIGXFSZ) costs the record and not the process.
    sigset_t all = {};
    sigset_t before = {};
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    m_thread = bEntered && pthread_create(&thread, &attributes, WriteLogThreadProc, this) == 0 ? 1 : 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (bEntered && m_thread == 0) {
        CDebugLogUsers::Leave();
    }
    return m_thread != 0;
}

inline void* CDebugLogMgr::WriteLogThreadProc(LPVOID lpParameter) {
    const CUse use(std::adopt_lock);
    LetOthersFinishFirst();
    static_cast<CDebugLogMgr*>(lpParameter)->WriteQueuedLines();
    return nullptr;
}

// Waking the writer takes the processor from nobody who computes; on a busy machine it gets its share of it later, for
// many records at once. A policy that the host has chosen for its threads stays.
inline void CDebugLogMgr::LetOthersFinishFirst() {
    const sched_param none = {};
    if (sched_getscheduler(0) == SCHED_OTHER) {
        static_cast<void>(sched_setscheduler(0, SCHED_BATCH, &none));
    }
}

inline void CDebugLogMgr::WriteQueuedLines() {
    for (;;) {
        sem_wait(&m_sem);
        if (IsExiting()) {
            return;
        }
        while (const std::unique_ptr<LogCacheList> pNode = TakeLine()) {
            if (!WriteLineOrLoseIt(pNode->strLog)) {
                return;
            }
        }
        if (IsExiting()) {
            return;
        }
    }
}

// When the exit handler has called, the queue is dropped.
inline BOOL CDebugLogMgr::IsExiting() {
    const int nExit = __atomic_load_n(&exit_flag, __ATOMIC_ACQUIRE);
    if (nExit == 1) {
        DiscardLines();
    }
    return nExit != 0;
}

// The oldest record; null when there is none, or none is to be written any more.
inline std::unique_ptr<LogCacheList> CDebugLogMgr::TakeLine() {
    if (CDebugLogUsers::IsClosed()) {
        return nullptr;
    }
    m_csLogCache.EnterVEXCritical();
    std::unique_ptr<LogCacheList> pNode(m_logCacheHead);
    if (pNode != nullptr) {
        m_logCacheHead = pNode->next;
        m_logCacheTail = m_logCacheHead != nullptr ? m_logCacheTail : nullptr;
        pNode->next = nullptr;
    }
    m_csLogCache.LeaveVEXCritical();
    return pNode;
}

inline void CDebugLogMgr::DiscardLines() {
    m_csLogCache.EnterVEXCritical();
    std::unique_ptr<LogCacheList> pNode(std::exchange(m_logCacheHead, nullptr));
    m_logCacheTail = nullptr;
    m_csLogCache.LeaveVEXCritical();
    while (pNode != nullptr) {
        pNode.reset(pNode->next);
    }
}

// Without memory a record is lost, as it is without room on the disk. The writer has no caller to tell, and the host
// would end with it. Returns what WriteLine does.
inline BOOL CDebugLogMgr::WriteLineOrLoseIt(const std::wstring& strLine) {
    try {
        return WriteLine(strLine);
    } catch (const std::bad_alloc&) {
        if (m_logFile.GetFileID() == 0) {
            EndUseOfFile();  // others wait for its lock
        }
        return TRUE;
    }
}

// FALSE: the clock cannot be read for a file name that has to be made, and the writer ends.
inline BOOL CDebugLogMgr::WriteLine(const std::wstring& strLine) {
    if (!VEXLoadField(m_bOutputLogToFile)) {
        return TRUE;
    }
    const BOOL bOfServer = m_logFile.GetFileID() != 0;
    if (m_logFile.IsOpen() && bOfServer != m_logFile.IsServerSupportEnabled()) {
        m_logFile.CloseFile();  // the server was switched on or off
        m_logFile.ForgetServerFile();
    }
    const Opened opened = m_logFile.IsOpen() ? Opened::Ready : OpenLogFile();
    if (opened == Opened::NoClock) {
        return FALSE;
    }
    if (opened == Opened::Ready) {
        ULONGLONG ullFileSize = 0;
        AppendLine(strLine, ullFileSize);
        if (VEXLoadField(m_dwTruncatePercent) != 0 && ullFileSize > VEXLoadField(m_dwMaxFileSize)) {
            CutLogFile(ullFileSize);
        }
    }
    EndUseOfFile();
    return TRUE;
}

// Closing ends the lock as well.
inline void CDebugLogMgr::EndUseOfFile() {
    if (VEXLoadField(m_bGlobalMode)) {
        m_logFile.LetOthersWrite();
    } else {
        m_logFile.CloseFile();
    }
}

// A file with a name that had to be made is opened, and given its header, but does not get the record.
inline CDebugLogMgr::Opened CDebugLogMgr::OpenLogFile() {
    if (m_logFile.IsServerSupportEnabled()) {
        return OpenServerFile() ? Opened::Ready : Opened::LineGivenUp;
    }
    std::wstring strName = LogFileName();
    BOOL bFallback = strName.empty() || PathIsDirectoryW(strName.c_str());
    for (BOOL bMakeName = bFallback;; bMakeName = bFallback = TRUE) {
        if (bMakeName && !ReplaceByFallbackName(strName)) {
            return Opened::NoClock;
        }
        if (bMakeName && PathIsDirectoryW(strName.c_str())) {
            return Opened::LineGivenUp;
        }
        DWORD dwError = ERROR_SUCCESS;
        if (m_logFile.OpenFile(strName.c_str(), dwError)) {
            if (dwError == ERROR_SUCCESS) {
                WriteBytes("\xFF\xFE", 2);
            }
            return bFallback ? Opened::LineGivenUp : Opened::Ready;
        }
        if (bFallback || dwError == ERROR_SUCCESS) {
            return Opened::LineGivenUp;
        }
    }
}

// The server knows what the name is. Another process may have appended to the new file already.
inline BOOL CDebugLogMgr::OpenServerFile() {
    DWORD dwError = ERROR_SUCCESS;
    if (!m_logFile.OpenFile(LogFileName().c_str(), dwError)) {
        return FALSE;
    }
    return dwError != ERROR_SUCCESS || (m_logFile.SeekToEnd() && WriteBytes("\xFF\xFE", 2));
}

// For a server that answers but does not do what it is asked. TRUE: it did not know the file, as one does not that was
// restarted, and now has it open with the position at its end.
inline BOOL CDebugLogMgr::ReopenServerFile() {
    if (m_logFile.IsServerLost() || m_logFile.SeekToEnd() || m_logFile.IsServerLost()) {
        return FALSE;
    }
    m_logFile.ForgetServerFile();
    return OpenServerFile() && m_logFile.SeekToEnd();
}

// " <name>.<date and time>", blank included, of the name at hand. A name that was set meanwhile stays.
inline BOOL CDebugLogMgr::ReplaceByFallbackName(std::wstring& strName) {
    wchar_t szName[MAX_FALLBACK + 1] = {};
    {
        const CVEXForkPause pause;
        Moment moment = {};
        if (!Now(pause, moment)) {
            return FALSE;
        }
        const std::tm& local = moment.local;
        static_cast<void>(std::swprintf(szName, MAX_FALLBACK, L" %ls.%04d.%02d.%02d.%02d.%02d.%02d.%03d",
                                        strName.c_str(), local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                                        local.tm_hour, local.tm_min, local.tm_sec, moment.nMicroseconds));
    }
    szName[MAX_FALLBACK - 1] = 0;
    const std::wstring strOld = std::exchange(strName, szName);
    const CDebugLogLock lock(s_csTexts);
    if (m_strLogFileName == strOld) {
        m_strLogFileName = strName;
    }
    return TRUE;
}

// A record that the locale cannot encode leaves its line ends. Failures count as written, but without the server
// nothing more is asked of it for this record: each question could take its whole time-out.
inline void CDebugLogMgr::AppendLine(const std::wstring& strLine, ULONGLONG& ullFileSize) {
    constexpr const char* END = "\r\n\r\n";
    const CStringA strNarrow(strLine.c_str());
    if (m_logFile.GetFileID() != 0) {
        if (!AppendToServerFile(strNarrow, END)) {
            return;
        }
        m_logFile.Flush();
    } else {
        m_logFile.SeekToEnd();
        WriteBytes(strNarrow.GetString(), static_cast<std::size_t>(strNarrow.GetLength()));
        m_logFile.Flush();
        WriteBytes(END, std::strlen(END));
    }
    m_logFile.GetFileSize(ullFileSize);
}

// One request, so that no other client's record comes between the text and its line ends. FALSE: the server has not got
// it, or has no room for it.
inline BOOL CDebugLogMgr::AppendToServerFile(const CStringA& strNarrow, const char* pszEnd) {
    std::string strEntry(strNarrow.GetString(), static_cast<std::size_t>(strNarrow.GetLength()));
    strEntry += pszEnd;
    if (!m_logFile.SeekToEnd() && !ReopenServerFile()) {
        return FALSE;
    }
    return WriteBytes(strEntry.data(), strEntry.size()) ||
           (ReopenServerFile() && WriteBytes(strEntry.data(), strEntry.size()));
}

// A file that others may write to can be made larger than this process has memory.
inline BOOL CDebugLogMgr::MayReadForCut(ULONGLONG ullFileSize) {
    return ullFileSize <= MAX_SHARED_CUT || (ullFileSize - 1) / 4 < VEXLoadField(m_dwMaxFileSize) ||
           !m_logFile.MayOthersWrite();
}

// Keeps the newest part, behind a fresh header. The last two bytes go as well. Nothing is changed unless the whole file
// could be read.
inline void CDebugLogMgr::CutLogFile(ULONGLONG ullFileSize) {
    constexpr ULONGLONG cbHeader = 2;
    CSmartBuffer objContents;
    if (ullFileSize < cbHeader || !MayReadForCut(ullFileSize) || objContents.Alloc(ullFileSize) == nullptr) {
        return;
    }
    if (!m_logFile.SeekToBegin() || !ReadBytes(objContents.GetBytes(), ullFileSize)) {
        return;
    }
    const ULONGLONG ullLength = ullFileSize - cbHeader;
    const float fPart = static_cast<float>(VEXLoadField(m_dwTruncatePercent)) / 100.0F;
    const float fCut = static_cast<float>(ullLength) * fPart;
    // More than there is cannot go, whatever the percentage and the rounding.
    const ULONGLONG ullCut =
        fCut < static_cast<float>(ullLength) ? std::min(static_cast<ULONGLONG>(fCut), ullLength) : ullLength;
    ULONGLONG ullKeep = ullLength - ullCut;
    ullKeep += ullKeep % 2;
    if (ullKeep > ullLength) {
        ullKeep -= 2;  // an odd length of which nothing was to go
    }
    if (m_logFile.SeekToBegin() && WriteBytes("\xFF\xFE", cbHeader) &&
        WriteBytes(objContents.GetBytes() + (ullLength - ullKeep), ullKeep)) {
        m_logFile.SetEndOfFile();
    }
}

// How much of so many bytes is transferred at a time.
inline std::size_t CDebugLogMgr::PieceOf(std::size_t cbData) {
    return m_logFile.GetFileID() != 0 ? std::min(cbData, MAX_SERVER_PIECE) : cbData;
}

// FALSE: not all of them were read. The server may return less than a piece.
inline BOOL CDebugLogMgr::ReadBytes(BYTE* pbData, std::size_t cbData) {
    const BOOL bOfServer = m_logFile.GetFileID() != 0;
    for (std::size_t cbDone = 0; cbDone < cbData;) {
        DWORD dwCount = PieceOf(cbData - cbDone);
        if (!m_logFile.Read(pbData + cbDone, dwCount) || dwCount == 0 || (!bOfServer && dwCount != cbData)) {
            return FALSE;
        }
        cbDone += dwCount;
    }
    return TRUE;
}

// FALSE: not all of them were written.
inline BOOL CDebugLogMgr::WriteBytes(const void* pData, std::size_t cbData) {
    const BYTE* const pbData = static_cast<const BYTE*>(pData);
    std::size_t cbDone = 0;
    do {
        const DWORD dwPiece = PieceOf(cbData - cbDone);
        DWORD dwCount = dwPiece;
        if (!m_logFile.Write(pbData + cbDone, dwCount) || dwCount != dwPiece || m_logFile.IsServerLost()) {
            return FALSE;
        }
        cbDone += dwPiece;
    } while (cbDone < cbData);
    return TRUE;
}
