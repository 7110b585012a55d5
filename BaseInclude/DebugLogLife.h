// The life of the log manager: the members of CDebugLogMgr that make it, run its writer thread, end it with the
// process, and handle a fork. DebugLogMgr.h includes this header and declares them.
#pragma once

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <time.h>

#include <cerrno>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <new>

#include "DebugLogMgr.h"

// ---- Creation ----

inline CDebugLogMgr* CDebugLogMgr::GetInstance() {
    CDebugLogMgr* const pMgr = s_pInstance.load(std::memory_order_acquire);
    if (pMgr != nullptr) {
        return pMgr;
    }
    // A static object of the function cannot be used: a fork during its creation would leave it half made in the child.
    const CVEXLock lock(s_csInstance);
    return s_pInstance.load(std::memory_order_relaxed) != nullptr ? s_pInstance.load(std::memory_order_relaxed)
                                                                  : CreateInstance();
}

// The storage is never freed: the last thread to leave the manager may do so after all static objects are destroyed.
inline CDebugLogMgr* CDebugLogMgr::CreateInstance() {
    alignas(CDebugLogMgr) static unsigned char s_storage[sizeof(CDebugLogMgr)];
    CDebugLogMgr* const pMgr = ::new (static_cast<void*>(s_storage)) CDebugLogMgr;
    s_pInstance.store(pMgr, std::memory_order_release);
    s_pLogLevel.store(&pMgr->m_logLevel, std::memory_order_release);
    static_cast<void>(std::atexit(ExitHandler));
    return pMgr;
}

inline CDebugLogMgr::CDebugLogMgr() : m_strLogFileName(DEFAULT_NAME), m_bFallbackName(FALSE), m_hEvent(nullptr) {
    m_bOutputLogToFile = TRUE;
    m_bGlobalMode = FALSE;
    m_bWithFunctionName = TRUE;
    m_dwMaxFileSize = 0x200000;
    m_dwTruncatePercent = 20;
    m_logLevel = DEFAULT_LEVEL;
    // Sets the locale of the whole process, on purpose: the conversions to narrow text use it.
    static_cast<void>(std::setlocale(LC_ALL, ""));
    // libc loads a locale's conversions at their first use, under a lock that a fork could leave locked in the child.
    // So they are loaded here, where no fork can interrupt. Converting an ASCII character would not load them.
    static_cast<void>(std::btowc(0x80));
    sem_init(&m_sem, 0, 0);
    exit_flag = 0;
    m_thread = 0;
    char szProfile[260] = {};
    static_cast<void>(std::snprintf(szProfile, sizeof(szProfile), "%s%s", "/var/log", ".ini"));
    m_logLevel = static_cast<int>(GetPrivateProfileIntA("loginfo", "logLevel", DEFAULT_LEVEL, szProfile));
    m_logCacheHead = m_logCacheTail = nullptr;
    CreateWriteLogThread();
}

// ---- The writer thread ----

inline BOOL CDebugLogMgr::CreateWriteLogThread() {
    if (m_thread != 0) {
        return TRUE;
    }
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread = {};
    const BOOL bEntered = CDebugLogUsers::Enter();  // for the new thread
    // The thread starts with all signals blocked. So the host's signals go to the host's threads, and a file that may
    // not grow (SIGXFSZ) costs a record instead of the process.
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

// The writer does not preempt threads that compute. On a busy machine it runs later, and then writes many records at
// once. A policy that the host has chosen for its threads stays.
inline void CDebugLogMgr::LetOthersFinishFirst() {
    const sched_param none = {};
    if (sched_getscheduler(0) == SCHED_OTHER) {
        static_cast<void>(sched_setscheduler(0, SCHED_BATCH, &none));
    }
}

inline void CDebugLogMgr::WriteQueuedLines() {
    CDebugLogFile file(m_logFile);
    for (;;) {
        sem_wait(&m_sem);
        if (IsExiting()) {
            return;
        }
        while (const std::unique_ptr<LogCacheList> pNode = TakeLine()) {
            if (!WriteLine(file, pNode->strLog)) {
                return;
            }
        }
        if (IsExiting()) {
            return;
        }
    }
}

// TRUE: the writer ends. After SignalExit, drops the queue.
inline BOOL CDebugLogMgr::IsExiting() {
    const int nExit = __atomic_load_n(&exit_flag, __ATOMIC_ACQUIRE);
    if (nExit == 1) {
        DiscardLines();
    }
    return nExit != 0;
}

// FALSE: the writer ends; see CDebugLogFile::Write. When memory runs out, the record is lost: the writer has no caller
// to tell, and an exception would end the host.
inline BOOL CDebugLogMgr::WriteLine(CDebugLogFile& file, const std::wstring& strLine) {
    if (!VEXLoadField(m_bOutputLogToFile)) {
        return TRUE;
    }
    CDebugLogFile::Settings settings = {
        {}, FALSE, VEXLoadField(m_bGlobalMode), VEXLoadField(m_dwMaxFileSize), VEXLoadField(m_dwTruncatePercent)};
    // A name that was set in the meantime stays.
    const auto fnReplaceName = [&](const std::wstring& strName) {
        const CVEXLock lock(s_csTexts);
        if (m_strLogFileName == settings.strName) {
            m_strLogFileName = strName;
            m_bFallbackName = TRUE;
        }
    };
    try {
        {
            const CVEXLock lock(s_csTexts);
            settings.strName = m_strLogFileName;
            settings.bFallbackName = m_bFallbackName;
        }
        return file.Write(strLine, settings, fnReplaceName);
    } catch (const std::bad_alloc&) {
        file.EndUseAfterFailure(settings.bGlobalMode);
        return TRUE;
    }
}

// ---- The end of the process ----

inline void CDebugLogMgr::SignalExit() {
    if (m_hEvent != nullptr && m_hEvent != INVALID_HANDLE_VALUE) {
        CloseHandle(m_hEvent);
        m_hEvent = nullptr;
    }
    __atomic_store_n(&exit_flag, 1, __ATOMIC_RELEASE);
    sem_post(&m_sem);
}

// Gives the writer one second. A signal that the host handles, for instance of a timer, does not end the wait. The
// clock limits it too, because nanosleep rounds the rest up at each signal.
inline void CDebugLogMgr::WaitForWriter() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    timespec left = {1, 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR && std::chrono::steady_clock::now() < end) {
    }
}

// Destroys the manager if no thread is in it. Otherwise the last thread that leaves it destroys it, so a writer in a
// slow file operation can still use it.
inline void CDebugLogMgr::ExitHandler() {
    if (s_bChildWithoutWriter.load(std::memory_order_acquire)) {
        CDebugLogUsers::Close();  // this process has logged nothing: the queue and the file are its parent's
        return;
    }
    CDebugLogMgr* const pMgr = s_pInstance.load(std::memory_order_acquire);
    pMgr->SignalExit();
    WaitForWriter();
    s_pLogLevel.store(&DROPS_ALL, std::memory_order_release);
    if (CDebugLogUsers::Close()) {
        pMgr->~CDebugLogMgr();
    }
}

// Runs when no other thread is in the manager, neither a tracing thread nor the writer.
inline CDebugLogMgr::~CDebugLogMgr() {
    sem_destroy(&m_sem);
    if (VEXLoadField(m_bGlobalMode)) {
        m_logFile.CloseFile();
        m_logFile.ForgetServerFile();
    }
    DiscardLines();
}

// ---- fork ----
//
// The parent holds all locks of the log while it forks. So no queue or text in the child is half changed, and the child
// can free the locks. The queue has a lock only if there is a manager; the thread safety analysis cannot follow that.

inline void CDebugLogMgr::BeforeFork() VEX_NO_THREAD_SAFETY_ANALYSIS {
    s_csInstance.Enter();
    s_csTexts.Enter();
    s_bHeldForFork = s_pInstance.load(std::memory_order_acquire) != nullptr && CDebugLogUsers::Enter();
    if (s_bHeldForFork) {
        s_pInstance.load(std::memory_order_acquire)->m_csLogCache.EnterVEXCritical();
    }
}

inline void CDebugLogMgr::AfterForkInParent() VEX_NO_THREAD_SAFETY_ANALYSIS {
    CDebugLogMgr* const pMgr = s_pInstance.load(std::memory_order_acquire);
    const BOOL bHeld = s_bHeldForFork;
    if (bHeld) {
        pMgr->m_csLogCache.LeaveVEXCritical();
    }
    s_csTexts.Leave();
    s_csInstance.Leave();
    if (bHeld && CDebugLogUsers::Leave()) {
        pMgr->~CDebugLogMgr();
    }
}

inline void CDebugLogMgr::AfterForkInChild() VEX_NO_THREAD_SAFETY_ANALYSIS {
    if (s_bHeldForFork) {
        CDebugLogMgr* const pMgr = s_pInstance.load(std::memory_order_acquire);
        pMgr->m_csLogCache.LeaveVEXCritical();
        pMgr->m_thread = 0;
        // The parent may be ending.
        pMgr->exit_flag = 0;
        s_pLogLevel.store(&pMgr->m_logLevel, std::memory_order_release);
        sem_init(&pMgr->m_sem, 0, 0);
        CDebugLogUsers::Reset();
        s_bChildWithoutWriter.store(TRUE, std::memory_order_release);
    }
    s_csTexts.Leave();
    s_csInstance.Leave();
}

// Frees the parent's records, which a fork handler must not do, and starts the child's writer.
inline void CDebugLogMgr::RestartAfterFork() {
    if (!s_bChildWithoutWriter.load(std::memory_order_acquire)) {
        return;
    }
    const CVEXLock lock(s_csInstance);
    if (!s_bChildWithoutWriter.load(std::memory_order_relaxed)) {
        return;
    }
    DiscardLines();
    // The parent's writer may have been changing the file object at the time of the fork.
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
