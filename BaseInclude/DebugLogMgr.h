// The diagnostic log. Calling threads make trace records and queue them; one thread of the log writes them to the file.
//
// DebugLogRecord.h makes the text of a record, DebugLogFile.h writes it. DebugLogLife.h has the members that make and
// end the manager and its writer thread, and the fork handlers.
//
// Threads: everything may be called from any thread. A tracing thread never waits for the log's file: it holds
// m_csLogCache only to link its record in. A full or slow disk costs memory, not the tracing threads' time. But each
// record looks for the file's directory, and makes it if it is missing: a file system that does not answer there delays
// the tracing thread. Fields that are used without a lock are accessed atomically.
//
// End of the process: the exit handler waits one second for the writer, and no longer. The last thread that leaves the
// manager then destroys it. A later thread finds the manager closed, and its record is dropped.
//
// fork: the child starts with an empty queue and no writer; its first record starts one. The parent writes the records
// that were queued at the fork.
//
// Errors: none is reported. When memory runs out, a tracing thread gets std::bad_alloc and the writer loses the record.
// A null format throws std::logic_error.
#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "CVEXCritical.h"
#include "DebugLogFile.h"
#include "DebugLogRecord.h"
#include "DebugLogUsers.h"
#include "VEXAtomicField.h"
#include "VEXCompat.h"
#include "VEXMutex.h"
#include "VEXThreadSafety.h"
#include "VEXType.h"
#include "VexFile.h"

// A queued record. The queue is linked from the oldest to the newest.
typedef struct LogCacheList {
    std::wstring strLog;  // complete except for the line ends
    LogCacheList* next;
} * PLOGCACHELIST;

class CDebugLogMgr {
public:
    // One place in the code that traces. Call the object like a function to write a record: a wide printf format and
    // its arguments. In the format, %s means wide text, like %ls.
    class MacroHelper {
    public:
        // Null pointers are empty texts. nLogLevel: records below the level of /var/log.ini are dropped, and cost no
        // memory.
        MacroHelper(LPCTSTR lpszLogType, int nLogLevel, LPCTSTR lpszSrcFileName, LPCTSTR lpszFunctionName,
                    DWORD dwSrcLineNumber)
            : m_dwSrcLineNumber(dwSrcLineNumber), m_curLogLevel(nLogLevel) {
            // The level never changes once there is a manager: a record that is dropped now needs no texts later.
            if (!IsDropped(nLogLevel)) {
                m_strLogType = TextOf(lpszLogType);
                m_strSrcFileName = TextOf(lpszSrcFileName);
                m_strSrcFunctionName = TextOf(lpszFunctionName);
            }
        }
        void operator()(LPCTSTR lpszFormat, ...);

    private:
        std::wstring m_strLogType;
        std::wstring m_strSrcFileName;
        std::wstring m_strSrcFunctionName;
        DWORD m_dwSrcLineNumber;
        int m_curLogLevel;
    };

    // The only manager. The first call makes it and its writer thread. Always the same address.
    static CDebugLogMgr* GetInstance();
    virtual ~CDebugLogMgr();

    // TRUE: records of that level are dropped. FALSE if there is no manager yet. Costs one comparison.
    static BOOL IsDropped(int nLogLevel) {
        const int* const pLevel = s_pLogLevel.load(std::memory_order_acquire);
        return pLevel != nullptr && nLogLevel < *pLevel;
    }
    // Whether records of that level are written now. Makes the manager if necessary.
    static BOOL IsWritten(int nLogLevel) {
        if (IsDropped(nLogLevel)) {
            return FALSE;
        }
        GetInstance();
        return !CDebugLogUsers::IsClosed() && !IsDropped(nLogLevel);
    }

    // Queues one record. Drops it if its level is below the configured one, or if the file name or the format is null.
    void OutputArgs(LPCTSTR lpszLogType, int nLogLevel, LPCTSTR lpszSrcFileName, LPCTSTR lpszFunctionName,
                    DWORD dwSrcLineNumber, LPCTSTR lpszFormat, va_list args);
    // The same at level 1, for a text instead of a format.
    void Output(LPCTSTR lpszLogType, LPCTSTR lpszSrcFileName, LPCTSTR lpszFunctionName, DWORD dwSrcLineNumber,
                LPCTSTR lpszText) {
        if (lpszSrcFileName != nullptr && lpszText != nullptr) {
            MacroHelper(lpszLogType, DEFAULT_LEVEL, lpszSrcFileName, lpszFunctionName, dwSrcLineNumber)(L"%ls",
                                                                                                        lpszText);
        }
    }

    // ---- Settings. They apply to all records that are written later; the header to all that are made later. ----

    // Empty: the default name. A file that global mode keeps open stays in use.
    void SetLogFileName(LPCTSTR lpszLogFileName) {
        const CUse use;
        if (use.IsGranted()) {
            std::wstring strName = TextOf(lpszLogFileName);
            const CVEXLock lock(s_csTexts);
            m_strLogFileName.swap(strName);
            m_bFallbackName = FALSE;
        }
    }
    // Bytes above which the file is cut, and the percentage of it that a cut removes. Percentage 0: never cut.
    void SetTruncate(DWORD dwMaxFileSize, DWORD dwTruncatePercent) {
        VEXStoreField(m_dwMaxFileSize, dwMaxFileSize);
        VEXStoreField(m_dwTruncatePercent, dwTruncatePercent);
    }
    // A text that stands before the message of every record.
    void SetLogHeader(LPCTSTR lpszLogHeader) {
        const CUse use;
        if (use.IsGranted()) {
            std::wstring strHeader = TextOf(lpszLogHeader);
            const CVEXLock lock(s_csTexts);
            m_strLogHeader.swap(strHeader);
        }
    }
    // FALSE: the writer drops what it takes from the queue.
    void EnableOutput(BOOL bEnable) { VEXStoreField(m_bOutputLogToFile, bEnable); }
    // Has no effect: a record names its function if the caller gave one.
    void WithFunctionName(BOOL bEnable) { VEXStoreField(m_bWithFunctionName, bEnable); }
    // The file stays open between records, without its lock.
    void EnableGlobalMode(BOOL bEnable) { VEXStoreField(m_bGlobalMode, bEnable); }
    // The log is then a file of the file server; see VexFile.h. Records are lost while the server does not answer.
    void EnableServerSupport(BOOL bEnable) {
        const CUse use;
        if (use.IsGranted()) {
            m_logFile.EnableServerSupport(bEnable);
        }
    }
    int GetLogLevel() { return m_logLevel; }
    // Drops the queued records. FALSE: the manager is closed.
    BOOL Clear() {
        const CUse use;
        if (use.IsGranted()) {
            DiscardLines();
        }
        return use.IsGranted();
    }

    BOOL CreateWriteLogThread();
    static void* WriteLogThreadProc(LPVOID lpParameter);

private:
    static constexpr LPCTSTR DEFAULT_NAME = L"/tmp/PILog.txt";
    static constexpr int DEFAULT_LEVEL = 1;
    static constexpr std::size_t MAX_DIRECTORY = 260;  // characters

    // Keeps the manager alive for its scope, unless it is already closed.
    class CUse {
    public:
        CUse() : m_bGranted(CDebugLogUsers::Enter()) {}
        // Takes over the Enter that the creator of this thread called for it.
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

    CDebugLogMgr();
    CDebugLogMgr(const CDebugLogMgr&);  // not defined

    static LPCTSTR TextOf(LPCTSTR lpszText) { return lpszText != nullptr ? lpszText : L""; }
    void MakeLogDirectory();

    // ---- The queue ----
    void QueueLine(std::wstring strLine);
    std::unique_ptr<LogCacheList> TakeLine();
    void DiscardLines();

    // ---- DebugLogLife.h ----
    static CDebugLogMgr* CreateInstance() VEX_REQUIRES(s_csInstance);
    void SignalExit();
    static void WaitForWriter();
    static void ExitHandler();
    static void BeforeFork();
    static void AfterForkInParent();
    static void AfterForkInChild();
    void RestartAfterFork();
    static void LetOthersFinishFirst();
    void WriteQueuedLines();
    BOOL IsExiting();
    BOOL WriteLine(CDebugLogFile& file, const std::wstring& strLine);

    std::wstring m_strLogFileName VEX_GUARDED_BY(s_csTexts);
    BOOL m_bFallbackName VEX_GUARDED_BY(s_csTexts);  // the writer has made the name
    std::wstring m_strLogHeader VEX_GUARDED_BY(s_csTexts);
    BOOL m_bOutputLogToFile;
    BOOL m_bWithFunctionName;
    DWORD m_dwMaxFileSize;
    DWORD m_dwTruncatePercent;
    CVexFile m_logFile;  // for the writer alone, except for EnableServerSupport
    HANDLE m_hEvent;
    BOOL m_bGlobalMode;
    PLOGCACHELIST m_logCacheHead VEX_GUARDED_BY(m_csLogCache) VEX_PT_GUARDED_BY(m_csLogCache);
    PLOGCACHELIST m_logCacheTail VEX_GUARDED_BY(m_csLogCache) VEX_PT_GUARDED_BY(m_csLogCache);
    int m_logLevel;
    int m_thread;
    sem_t m_sem;
    int exit_flag;
    CVEXCritical m_csLogCache;

    // Outside the object because they are used before it exists, or after it is destroyed.
    inline static std::atomic<CDebugLogMgr*> s_pInstance{nullptr};
    // Points to m_logLevel. At the end of the process it points to the level of a log that drops everything.
    inline static std::atomic<const int*> s_pLogLevel{nullptr};
    static constexpr int DROPS_ALL = INT_MAX;
    inline static std::atomic<BOOL> s_bChildWithoutWriter{FALSE};  // forked, and nothing logged since
    // Held while the manager is made, or is given a writer in a forked child.
    inline static CVEXMutex s_csInstance;
    // Held to replace or copy the file name and the header; never while a thread waits for the disk.
    inline static CVEXMutex s_csTexts;
    inline static BOOL s_bHeldForFork VEX_GUARDED_BY(s_csInstance) = FALSE;
    // Registered at load time: a fork always waits while a thread makes the manager. Handlers run in reverse order
    // before a fork, so these run before those of CVEXForkPause, whose header comes first: a thread that makes the
    // manager enters a scope of CVEXForkPause with s_csInstance held.
    [[maybe_unused]] inline static const int s_nForkHandlers =
        pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
};

// ---- Tracing ----

inline void CDebugLogMgr::MacroHelper::operator()(LPCTSTR lpszFormat, ...) {
    // Checked before the format is copied. A null format is an error at every level.
    if (lpszFormat != nullptr && !IsWritten(m_curLogLevel)) {
        return;
    }
    const std::wstring strFormat = CDebugLogRecord::TraceFormat(lpszFormat);
    va_list args;
    va_start(args, lpszFormat);
    struct ArgumentsEnd {  // also when an allocation throws
        va_list& args;
        ~ArgumentsEnd() { va_end(args); }
    } const end{args};
    GetInstance()->OutputArgs(m_strLogType.c_str(), m_curLogLevel, m_strSrcFileName.c_str(),
                              m_strSrcFunctionName.c_str(), m_dwSrcLineNumber, strFormat.c_str(), args);
}

inline void CDebugLogMgr::OutputArgs(LPCTSTR lpszLogType, int nLogLevel, LPCTSTR lpszSrcFileName,
                                     LPCTSTR lpszFunctionName, DWORD dwSrcLineNumber, LPCTSTR lpszFormat,
                                     va_list args) {
    const CUse use;
    if (!use.IsGranted() || m_logLevel > nLogLevel) {
        return;
    }
    // A local copy decides for this record: another thread may store its own choice in the field at any time.
    const BOOL bWithFunctionName = lpszFunctionName != nullptr && *lpszFunctionName != 0;
    VEXStoreField(m_bWithFunctionName, bWithFunctionName);
    if (lpszSrcFileName == nullptr || lpszFormat == nullptr) {
        return;
    }
    RestartAfterFork();
    MakeLogDirectory();

    CDebugLogRecord record;
    if (!record.FormatHeader(lpszSrcFileName, bWithFunctionName ? lpszFunctionName : nullptr, dwSrcLineNumber)) {
        return;
    }
    record.FormatMessage(lpszFormat, args);
    std::wstring strLogHeader;
    {
        const CVEXLock lock(s_csTexts);
        strLogHeader = m_strLogHeader;
    }
    QueueLine(record.Line(lpszLogType, strLogHeader));
}

// If this fails, opening the file fails later.
inline void CDebugLogMgr::MakeLogDirectory() {
    wchar_t szDirectory[MAX_DIRECTORY] = {};
    {
        const CVEXLock lock(s_csTexts);
        if (m_strLogFileName.empty()) {
            m_strLogFileName = DEFAULT_NAME;
            return;
        }
        wcscpy_s(szDirectory, MAX_DIRECTORY, m_strLogFileName.c_str());
    }
    PathRemoveFileSpecW(szDirectory);
    SHCreateDirectoryExW(nullptr, szDirectory, nullptr);
}

// ---- The queue ----

inline void CDebugLogMgr::QueueLine(std::wstring strLine) {
    LogCacheList* const pNew = new LogCacheList{std::move(strLine), nullptr};
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

// The oldest record. Null when there is none, or when the manager is closed.
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

#include "DebugLogLife.h"  // the other members
