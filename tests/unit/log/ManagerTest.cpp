// The log manager: one per process, its defaults, its settings, its writer thread and forks.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <sched.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <latch>
#include <thread>

#include "FileCalls.h"
#include "HeldUpCall.h"
#include "LogTest.h"
#include "SystemCalls.h"

namespace {

std::atomic<bool> s_bNoMoreThreads = false;

}  // namespace

// Before that of libc.
extern "C" int pthread_create(pthread_t* pThread, const pthread_attr_t* pAttributes, void* (*pFunction)(void*),
                              void* pArgument) noexcept {
    static auto* const s_pNext = system_calls::Next(pthread_create, "pthread_create");
    return s_bNoMoreThreads ? EAGAIN : s_pNext(pThread, pAttributes, pFunction, pArgument);
}

namespace {

using testing::ElementsAre;

using ManagerTest = LogTest;

size_t ThreadsOfThisProcess() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

// The scheduling policy of the thread that opens the log file.
int PolicyOfTheWriter() {
    std::atomic<int> nPolicy = -1;
    file_calls::Watch([&](const file_calls::Call& call) {
        if (call.function == "VexCreateFile") {
            nPolicy = sched_getscheduler(0);
        }
    });
    Trace(L"once");
    file_calls::WaitFor("CloseHandle", 1);
    return nPolicy;
}

TEST_F(ManagerTest, TwoThreadsAtOnceMakeOneManagerAndOneWriter) {
    InChild([&] {
        constexpr int kThreads = 2;
        std::latch start(kThreads);
        std::latch asked(kThreads);
        std::latch end(1);
        CDebugLogMgr* managers[kThreads] = {};
        std::vector<std::jthread> threads;
        std::thread([] {}).join();  // together with the first thread, a sanitizer starts one of its own
        const size_t nBefore = ThreadsOfThisProcess();
        for (CDebugLogMgr*& pManager : managers) {
            threads.emplace_back([&] {
                start.arrive_and_wait();
                pManager = CDebugLogMgr::GetInstance();
                asked.count_down();
                end.wait();
            });
        }
        asked.wait();
        EXPECT_NE(managers[0], nullptr);
        EXPECT_EQ(managers[0], managers[1]);
        EXPECT_EQ(ThreadsOfThisProcess(), nBefore + kThreads + 1);
        // A second request starts no second writer.
        managers[0]->CreateWriteLogThread();
        EXPECT_EQ(ThreadsOfThisProcess(), nBefore + kThreads + 1);
        end.count_down();
        threads.clear();
        Trace(L"once");
        WaitUntilWritten(LogPath());
    });
    EXPECT_EQ(RecordsOf(LogPath()).size(), 1U);
}

// Nothing is reported, and no record tries again.
TEST_F(ManagerTest, RecordsStayQueuedWhenTheWriterCannotStart) {
    InChild([&] {
        const size_t nBefore = ThreadsOfThisProcess();
        s_bNoMoreThreads = true;
        Trace(L"one");
        EXPECT_FALSE(CDebugLogMgr::GetInstance()->CreateWriteLogThread());
        s_bNoMoreThreads = false;
        Trace(L"two");
        EXPECT_EQ(ThreadsOfThisProcess(), nBefore);
        EXPECT_TRUE(CDebugLogMgr::GetInstance()->CreateWriteLogThread());
        WaitUntilWritten(LogPath());
    });
    EXPECT_THAT(MessagesOf(LogPath()), ElementsAre("one", "two"));
}

// The exit handler finds a manager that has no writer.
TEST_F(ManagerTest, TheProcessEndsWithoutAWriter) {
    InChild(
        [&] {
            s_bNoMoreThreads = true;
            Trace(L"lost");
        },
        Exit::kByReturn);
    EXPECT_FALSE(std::filesystem::exists(LogPath()));
}

TEST_F(ManagerTest, TheWriterRunsInTheBatchPolicy) {
    InChild([] {
        EXPECT_EQ(PolicyOfTheWriter(), SCHED_BATCH);
        EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
    });
}

TEST_F(ManagerTest, TheWriterKeepsAPolicyThatTheHostHasChosen) {
    InChild([] {
        const sched_param none = {};
        ASSERT_EQ(sched_setscheduler(0, SCHED_IDLE, &none), 0);
        EXPECT_EQ(PolicyOfTheWriter(), SCHED_IDLE);
    });
}

// The signals that a program can block and the mask does not: the standard ones and the real-time ones.
std::vector<int> SignalsNotIn(const sigset_t& mask) {
    std::vector<int> missing;
    for (int nSignal = 1; nSignal <= SIGRTMAX; ++nSignal) {
        const bool bFree = nSignal != SIGKILL && nSignal != SIGSTOP && (nSignal < 32 || nSignal >= SIGRTMIN);
        if (bFree && sigismember(&mask, nSignal) != 1) {
            missing.push_back(nSignal);
        }
    }
    return missing;
}

// The signals that the writer blocks while it opens the log file for the next record.
sigset_t SignalsOfTheWriter() {
    sigset_t mask = {};
    file_calls::Watch([&](const file_calls::Call& call) {
        if (call.function == "VexCreateFile") {
            pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        }
    });
    const int nBefore = file_calls::Count("CloseHandle");
    Trace(L"once");
    file_calls::WaitFor("CloseHandle", nBefore + 1);
    file_calls::Watch([](const file_calls::Call&) {});
    return mask;
}

TEST_F(ManagerTest, TheWriterBlocksAllSignalsAndNobodyElseDoes) {
    InChild([&] {
        sigset_t own = {};
        sigaddset(&own, SIGUSR1);
        ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &own, nullptr), 0);
        EXPECT_EQ(SignalsNotIn(SignalsOfTheWriter()), std::vector<int>{});
        sigset_t after = {};
        ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &after), 0);
        EXPECT_EQ(std::memcmp(&after, &own, sizeof own), 0);

        InChild([] { EXPECT_EQ(SignalsNotIn(SignalsOfTheWriter()), std::vector<int>{}); });
    });
}

// A signal to a process is handled on any thread that does not block it, or waits for one.
TEST_F(ManagerTest, AHostsSignalIsHandledOnTheHostsThread) {
    InChild([&] {
        static std::atomic<pid_t> s_nHandled;
        s_nHandled = 0;
        std::signal(SIGUSR1, [](int) { s_nHandled = gettid(); });
        Trace(L"before");  // makes the writer, whose mask does not follow its creator's
        WaitUntilWritten(LogPath());
        sigset_t signal = {};
        sigaddset(&signal, SIGUSR1);
        ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &signal, nullptr), 0);
        for (int i = 0; i < 20; ++i) {
            ASSERT_EQ(kill(getpid(), SIGUSR1), 0);
            Trace(L"after");  // wakes the writer
            WaitUntilWritten(LogPath());
        }
        EXPECT_EQ(s_nHandled, 0);
        ASSERT_EQ(pthread_sigmask(SIG_UNBLOCK, &signal, nullptr), 0);
        EXPECT_EQ(s_nHandled, gettid());
    });
}

TEST_F(ManagerTest, NoManagerNoThreadAndNoFileBeforeTheFirstTrace) {
    InChild([&] {
        const size_t nBefore = ThreadsOfThisProcess();
        static_cast<void>(Place());
        EXPECT_EQ(ThreadsOfThisProcess(), nBefore);
    });
    EXPECT_FALSE(std::filesystem::exists(LogPath()));
}

TEST_F(ManagerTest, TakesTheLocaleFromTheEnvironmentAndIgnoresSigpipe) {
    InChild([] {
        ASSERT_STREQ(std::setlocale(LC_ALL, nullptr), "C");
        CDebugLogMgr::GetInstance();
        EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C.UTF-8");
        struct sigaction action {};
        ASSERT_EQ(sigaction(SIGPIPE, nullptr, &action), 0);
        EXPECT_EQ(action.sa_handler, SIG_IGN);
    });
}

TEST_F(ManagerTest, ByDefaultCutsAFifthAboveTwoMebibytes) {
    constexpr size_t kLimit = 0x200000;
    InChild([&] {
        std::vector<uintmax_t> sizes;
        file_calls::Watch([&](const file_calls::Call& call) {
            if (call.function == "CloseHandle") {
                sizes.push_back(std::filesystem::file_size(LogPath()));
            }
        });
        constexpr int kRecords = 300;
        for (int i = 0; i < kRecords; ++i) {
            Trace(std::wstring(8000, L'x'));
        }
        file_calls::WaitFor("CloseHandle", kRecords);
        ASSERT_EQ(sizes.size(), static_cast<size_t>(kRecords));
        size_t nCuts = 0;
        for (size_t i = 1; i < sizes.size(); ++i) {
            if (sizes[i] < sizes[i - 1]) {
                ++nCuts;
                EXPECT_GT(sizes[i - 1] + 8100 + 4, kLimit);
                EXPECT_NEAR(static_cast<double>(sizes[i]), 0.8 * kLimit, 8100);
            }
            EXPECT_LE(sizes[i], kLimit);
        }
        EXPECT_EQ(nCuts, 1U);
    });
}

TEST_F(ManagerTest, TheLogsHeaderTextIsPutBeforeTheMessage) {
    InChild([&] {
        CDebugLogMgr::GetInstance()->SetLogHeader(L"<header> ");
        Trace(L"with");
        WaitUntilWritten(LogPath());
        for (const wchar_t* pszNone : {L"", static_cast<const wchar_t*>(nullptr)}) {
            CDebugLogMgr::GetInstance()->SetLogHeader(pszNone);
            Trace(L"without");
            WaitUntilWritten(LogPath());
        }
    });
    EXPECT_THAT(MessagesOf(LogPath()), ElementsAre("<header> with", "without", "without"));
}

TEST_F(ManagerTest, TheLogMovesToANewNameAndMakesItsDirectories) {
    const std::string strElsewhere = m_directory.Path("new/directories/own.log");
    InChild([&] {
        Trace(L"default");
        WaitUntilWritten(LogPath());
        SetLogFileName(strElsewhere);
        Trace(L"elsewhere");
        WaitUntilWritten(strElsewhere);
        SetLogFileName("");
        Trace(L"default again");
        WaitUntilWritten(LogPath());
    });
    EXPECT_THAT(MessagesOf(LogPath()), ElementsAre("default", "default again"));
    EXPECT_THAT(MessagesOf(strElsewhere), ElementsAre("elsewhere"));
    EXPECT_TRUE(ReadWholeFile(strElsewhere).starts_with("\xFF\xFE"));
}

TEST_F(ManagerTest, TheWriterDropsRecordsWhileOutputIsOff) {
    InChild(
        [&] {
            Trace(L"written");
            WaitUntilWritten(LogPath());
            CDebugLogMgr::GetInstance()->EnableOutput(FALSE);
            Trace(L"dropped");
        },
        Exit::kByReturn);  // gives the writer a second
    EXPECT_THAT(MessagesOf(LogPath()), ElementsAre("written"));
}

TEST_F(ManagerTest, ClearDropsTheQueuedRecords) {
    InChild([&] {
        HeldUpCall held("VexCreateFile");
        Trace(L"taken");
        held.WaitForIt();
        Trace(L"queued");
        Trace(L"queued as well");
        EXPECT_TRUE(CDebugLogMgr::GetInstance()->Clear());
        held.GoOn();
        Trace(L"later");
        WaitUntilWritten(LogPath());
    });
    EXPECT_THAT(MessagesOf(LogPath()), ElementsAre("taken", "later"));
}

// A path buffer has 260 characters, the last of which is the terminator.
TEST_F(ManagerTest, DirectoriesAreMadeForNamesOfUpTo259Characters) {
    const auto nameOf = [&](const char* pszDirectory, size_t nLength) {
        const std::string strBegin = m_directory.Path(pszDirectory) + "/" + std::string(100, 'd') + "/";
        return strBegin + std::string(nLength - strBegin.size(), 'f');
    };
    const std::string strFits = nameOf("fits", 259);
    InChild([&] {
        const std::string strDoesNot = nameOf("does not", 260);
        SetLogFileName(strDoesNot);
        Trace(L"text");                           // would have made the directory
        file_calls::WaitFor("VexCreateFile", 2);  // that name and its fallback; both fail
        SetLogFileName(strFits);
        Trace(L"text");
        WaitUntilWritten(strFits);
    });
    EXPECT_FALSE(std::filesystem::exists(m_directory.Path("does not")));
    EXPECT_EQ(RecordsOf(strFits).size(), 1U);
}

TEST_F(ManagerTest, AForkedChildLeavesItsParentsRecordsToTheParent) {
    SKIP_FORKS_WITH_ASAN();
    InChild([&] {
        HeldUpCall held("VexCreateFile");
        Trace(L"first of the parent");
        held.WaitForIt();
        Trace(L"second of the parent");
        InChild([&] {
            Trace(L"child");
            WaitUntilWritten(LogPath());
        });
        EXPECT_THAT(MessagesOf(LogPath()), ElementsAre("child"));
        held.GoOn();
        WaitUntilWritten(LogPath());
        EXPECT_THAT(MessagesOf(LogPath()), ElementsAre("child", "first of the parent", "second of the parent"));
    });
}

// Making the log ignores SIGPIPE and seeds rand. Its start in a forked child does neither.
TEST_F(ManagerTest, AForkedChildKeepsItsSignalsAndItsRandomNumbers) {
    InChild([&] {
        Trace(L"parent");
        WaitUntilWritten(LogPath());
        InChild([&] {
            std::signal(SIGPIPE, SIG_DFL);
            std::srand(7);
            const int nFirst = std::rand();
            std::srand(7);
            Trace(L"child");
            WaitUntilWritten(LogPath());
            EXPECT_EQ(std::rand(), nFirst);
            EXPECT_EQ(std::signal(SIGPIPE, SIG_IGN), SIG_DFL);
        });
    });
    EXPECT_EQ(RecordsOf(LogPath()).size(), 2U);
}

TEST_F(ManagerTest, AForkedChildClosesTheFileThatItsParentHasOpen) {
    SKIP_FORKS_WITH_ASAN();
    InChild([&] {
        CDebugLogMgr::GetInstance()->EnableGlobalMode(TRUE);
        Trace(L"parent");
        WaitUntilWritten(LogPath());
        InChild([&] {
            Trace(L"child");
            WaitUntilWritten(LogPath());
            EXPECT_EQ(file_calls::Count("VexCreateFile"), 2);
            EXPECT_EQ(file_calls::Count("CloseHandle"), 1);
        });
    });
}

TEST_F(ManagerTest, EachRecordDecidesWhetherItHasAFunctionName) {
    InChild([&] {
        CDebugLogMgr::GetInstance()->WithFunctionName(FALSE);
        Trace(L"text");
        WaitUntilWritten(LogPath());
    });
    const auto records = RecordsOf(LogPath());
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].strFunction, "Function");
}

TEST_F(ManagerTest, InGlobalModeTheFileStaysOpen) {
    InChild([&] {
        CDebugLogMgr::GetInstance()->EnableGlobalMode(TRUE);
        for (int i = 0; i < 3; ++i) {
            Trace(L"text");
        }
        WaitUntilWritten(LogPath());
        EXPECT_EQ(file_calls::Count("VexCreateFile"), 1);
        EXPECT_EQ(file_calls::Count("CloseHandle"), 0);
    });
    EXPECT_EQ(RecordsOf(LogPath()).size(), 3U);
}

// Other processes can write between two records, but not inside one.
TEST_F(ManagerTest, InGlobalModeTheFileIsLockedForEachRecord) {
    InChild([&] {
        m_directory.Write("PILog.txt", "\xFF\xFE");
        const int nFile = open(LogPath().c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_GE(nFile, 0);
        const auto isLocked = [nFile] {
            const bool bLocked = flock(nFile, LOCK_EX | LOCK_NB) != 0;
            flock(nFile, LOCK_UN);
            return bLocked;
        };
        CDebugLogMgr::GetInstance()->EnableGlobalMode(TRUE);
        std::atomic<int> nUnlockedWrites = 0;
        file_calls::Watch(
            [&](const file_calls::Call& call) { nUnlockedWrites += call.function == "WriteFile" && !isLocked(); });
        constexpr int kRecords = 3;
        for (int i = 1; i <= kRecords; ++i) {
            Trace(L"text");
            file_calls::WaitFor("FlushFileBuffers", 3 * i);  // once in the record, twice after it
            EXPECT_FALSE(isLocked());
        }
        EXPECT_EQ(nUnlockedWrites, 0);
        EXPECT_EQ(file_calls::Count("VexCreateFile"), 1);
        close(nFile);
    });
    EXPECT_EQ(RecordsOf(LogPath()).size(), 3U);
}

TEST_F(ManagerTest, OutputDoesNotFormatItsText) {
    InChild([&] {
        CDebugLogMgr::GetInstance()->Output(L"[OWN] ", L"other.cpp", L"Caller", 99, L"100%s %d %");
        WaitUntilWritten(LogPath());
    });
    const auto records = RecordsOf(LogPath());
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].strType, "[OWN] ");
    EXPECT_EQ(records[0].strFile, "other.cpp");
    EXPECT_EQ(records[0].strFunction, "Caller");
    EXPECT_EQ(records[0].nLine, 99);
    EXPECT_EQ(records[0].strMessage, "100%s %d %");
}

TEST_F(ManagerTest, OutputToleratesNullPointers) {
    InChild([&] {
        CDebugLogMgr* const pManager = CDebugLogMgr::GetInstance();
        pManager->Output(nullptr, nullptr, nullptr, 0, nullptr);
        pManager->Output(L"[OWN] ", L"other.cpp", L"Caller", 99, nullptr);
        pManager->Output(nullptr, L"other.cpp", nullptr, 99, L"text");
        WaitUntilWritten(LogPath());
    });
    const auto records = RecordsOf(LogPath());
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].strType, "");
    EXPECT_EQ(records[0].strFunction, std::nullopt);
    EXPECT_EQ(records[0].strMessage, "text");
}

// As at the end of the process, when threads still trace.
TEST_F(ManagerTest, AClosedManagerTakesNoRecordsAndNoSettings) {
    InChild([&] {
        Trace(L"before");
        WaitUntilWritten(LogPath());
        CDebugLogMgr* const pMgr = CDebugLogMgr::GetInstance();
        EXPECT_FALSE(CDebugLogUsers::Close());  // the writer is still in it, so the log stays as it is
        EXPECT_FALSE(CDebugLogMgr::IsWritten(1));
        Trace(L"dropped");
        TraceArguments(L"[INFO] ", 1, L"test.cpp", L"Function", 7, L"dropped, too");
        SetLogFileName(m_directory.Path("other.txt"));
        pMgr->SetLogHeader(L"header");
        pMgr->EnableServerSupport(TRUE);
        EXPECT_FALSE(pMgr->Clear());
        ExpectChildPasses([&] {  // has no log either
            EXPECT_FALSE(CDebugLogMgr::IsWritten(1));
            Trace(L"dropped by the child");
        });
    });
    EXPECT_THAT(MessagesOf(LogPath()), ElementsAre("before"));
    EXPECT_FALSE(std::filesystem::exists(m_directory.Path("other.txt")));
}

}  // namespace
