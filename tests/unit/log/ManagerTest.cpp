// The log manager: one for the process, its defaults as they show, and each of its settings.
#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <latch>
#include <set>
#include <thread>

#include "FileCalls.h"
#include "LogTest.h"

namespace {

using ManagerTest = LogTest;

// Of the process's first opening of the log file: whoever does it waits until it is told to go on.
class HeldUpOpening {
public:
    HeldUpOpening() {
        file_calls::Watch([this](const file_calls::Call& call) {
            if (call.function == "VexCreateFile" && m_bFirst.exchange(false)) {
                m_opening.count_down();
                m_goOn.wait();
            }
        });
    }
    HeldUpOpening(const HeldUpOpening&) = delete;
    HeldUpOpening& operator=(const HeldUpOpening&) = delete;

    void WaitForIt() { m_opening.wait(); }
    void GoOn() { m_goOn.count_down(); }

private:
    std::latch m_opening{1};
    std::latch m_goOn{1};
    std::atomic<bool> m_bFirst = true;
};

size_t ThreadsOfThisProcess() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

// How the scheduler treats the thread in which the log file was opened first.
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
        std::vector<std::thread> threads;
        std::thread([] {}).join();  // a sanitizer starts a thread of its own beside the first
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
        // Another request for the writer starts no second one.
        managers[0]->CreateWriteLogThread();
        EXPECT_EQ(ThreadsOfThisProcess(), nBefore + kThreads + 1);
        end.count_down();
        for (std::thread& thread : threads) {
            thread.join();
        }
        Trace(L"once");
        WaitUntilWritten(LogPath());
    });
    EXPECT_EQ(RecordsOf(LogPath()).size(), 1U);
}

TEST_F(ManagerTest, TheWriterLetsThreadsThatComputeFinishFirst) {
    InChild([] {
        EXPECT_EQ(PolicyOfTheWriter(), SCHED_BATCH);
        EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
    });
}

TEST_F(ManagerTest, ThePolicyOfAHostThatHasChosenOneStays) {
    InChild([] {
        const sched_param none = {};
        ASSERT_EQ(sched_setscheduler(0, SCHED_IDLE, &none), 0);
        EXPECT_EQ(PolicyOfTheWriter(), SCHED_IDLE);
    });
}

// Those of a handler's choice that the mask lacks; the first 31, and the ones that a program may use beyond.
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

// What the writer blocks while it opens the log file for the next record.
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

        const pid_t nChild = fork();
        ASSERT_GE(nChild, 0);
        if (nChild == 0) {
            alarm(60);
            EXPECT_EQ(SignalsNotIn(SignalsOfTheWriter()), std::vector<int>{});
            EndChildAtOnce();
        }
        int nStatus = -1;
        ASSERT_EQ(waitpid(nChild, &nStatus, 0), nChild);
        EXPECT_EQ(nStatus, 0);
    });
}

// The signals of a process whose threads have blocked them wait for one that has not.
TEST_F(ManagerTest, AHostsSignalIsHandledOnTheHostsThread) {
    InChild([&] {
        static std::atomic<pid_t> s_nHandled;
        s_nHandled = 0;
        std::signal(SIGUSR1, [](int) { s_nHandled = gettid(); });
        Trace(L"before");  // the writer is there, and has not got its creator's mask
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
        { CDebugLogMgr::MacroHelper helper(L"[INFO] ", 1, L"test.cpp", L"Function", 7); }
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

TEST_F(ManagerTest, CutsByAFifthAtTwoMebibytesUnlessToldOtherwise) {
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

TEST_F(ManagerTest, TheHeaderTextStandsBetweenHeaderAndMessage) {
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
    const auto records = RecordsOf(LogPath());
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records[0].strMessage, "<header> with");
    EXPECT_EQ(records[1].strMessage, "without");
    EXPECT_EQ(records[2].strMessage, "without");
}

TEST_F(ManagerTest, TheLogCanGoElsewhereAndMakesItsDirectories) {
    const std::string strElsewhere = m_directory.Path("new/directories/own.log");
    InChild([&] {
        Trace(L"default");
        WaitUntilWritten(LogPath());
        const std::wstring strName(strElsewhere.begin(), strElsewhere.end());
        CDebugLogMgr::GetInstance()->SetLogFileName(strName.c_str());
        Trace(L"elsewhere");
        WaitUntilWritten(strElsewhere);
        CDebugLogMgr::GetInstance()->SetLogFileName(L"");
        Trace(L"default again");
        WaitUntilWritten(LogPath());
    });
    const auto inDefault = RecordsOf(LogPath());
    ASSERT_EQ(inDefault.size(), 2U);
    EXPECT_EQ(inDefault[0].strMessage, "default");
    EXPECT_EQ(inDefault[1].strMessage, "default again");
    const auto elsewhere = RecordsOf(strElsewhere);
    ASSERT_EQ(elsewhere.size(), 1U);
    EXPECT_EQ(elsewhere[0].strMessage, "elsewhere");
    EXPECT_TRUE(ReadWholeFile(strElsewhere).starts_with("\xFF\xFE"));
}

TEST_F(ManagerTest, WithoutOutputTheWriterDropsWhatItTakes) {
    const ChildEnd end = RunLogChild(
        [&] {
            Trace(L"written");
            WaitUntilWritten(LogPath());
            CDebugLogMgr::GetInstance()->EnableOutput(FALSE);
            Trace(L"dropped");
        },
        Exit::kByReturn);  // which gives the writer a second
    EXPECT_EQ(end.nStatus, 0);
    const auto records = RecordsOf(LogPath());
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].strMessage, "written");
}

// The writer is held up with the first record.
TEST_F(ManagerTest, ClearingDropsWhatIsQueued) {
    InChild([&] {
        HeldUpOpening held;
        Trace(L"taken");
        held.WaitForIt();
        Trace(L"queued");
        Trace(L"queued as well");
        EXPECT_TRUE(CDebugLogMgr::GetInstance()->Clear());
        held.GoOn();
        Trace(L"later");
        WaitUntilWritten(LogPath());
    });
    const auto records = RecordsOf(LogPath());
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].strMessage, "taken");
    EXPECT_EQ(records[1].strMessage, "later");
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
        CDebugLogMgr* const pManager = CDebugLogMgr::GetInstance();
        pManager->SetLogFileName(std::wstring(strDoesNot.begin(), strDoesNot.end()).c_str());
        Trace(L"text");                           // returns when the directory would have been made
        file_calls::WaitFor("VexCreateFile", 2);  // that name and the one in its place, in vain
        pManager->SetLogFileName(std::wstring(strFits.begin(), strFits.end()).c_str());
        Trace(L"text");
        WaitUntilWritten(strFits);
    });
    EXPECT_FALSE(std::filesystem::exists(m_directory.Path("does not")));
    EXPECT_EQ(RecordsOf(strFits).size(), 1U);
}

// The parent's writer is held up in the opening of the file.
TEST_F(ManagerTest, AForkedChildLeavesItsParentsRecordsToTheParent) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "skipped: the sanitizer's allocator leaves a forked child the locks of the other threads";
#endif
    const auto messages = [&] {
        std::vector<std::string> texts;
        for (const LogRecord& record : RecordsOf(LogPath())) {
            texts.push_back(record.strMessage);
        }
        return texts;
    };
    InChild([&] {
        HeldUpOpening held;
        Trace(L"first of the parent");
        held.WaitForIt();
        Trace(L"second of the parent");
        const pid_t nChild = fork();
        ASSERT_GE(nChild, 0);
        if (nChild == 0) {
            alarm(60);
            Trace(L"child");
            WaitUntilWritten(LogPath());
            _exit(0);
        }
        int nStatus = -1;
        ASSERT_EQ(waitpid(nChild, &nStatus, 0), nChild);
        EXPECT_EQ(nStatus, 0);
        EXPECT_EQ(messages(), std::vector<std::string>{"child"});
        held.GoOn();
        WaitUntilWritten(LogPath());
        EXPECT_EQ(messages(), (std::vector<std::string>{"child", "first of the parent", "second of the parent"}));
    });
}

// What the log does to the process when it is made, it does once.
TEST_F(ManagerTest, AForkedChildKeepsItsSignalsAndItsRandomNumbers) {
    InChild([&] {
        Trace(L"parent");
        WaitUntilWritten(LogPath());
        const pid_t nChild = fork();
        ASSERT_GE(nChild, 0);
        if (nChild == 0) {
            alarm(60);
            std::signal(SIGPIPE, SIG_DFL);
            std::srand(7);
            const int nFirst = std::rand();
            std::srand(7);
            Trace(L"child");
            WaitUntilWritten(LogPath());
            EXPECT_EQ(std::rand(), nFirst);
            EXPECT_EQ(std::signal(SIGPIPE, SIG_IGN), SIG_DFL);
            EndChildAtOnce();
        }
        int nStatus = -1;
        ASSERT_EQ(waitpid(nChild, &nStatus, 0), nChild);
        EXPECT_EQ(nStatus, 0);
    });
    EXPECT_EQ(RecordsOf(LogPath()).size(), 2U);
}

TEST_F(ManagerTest, ALineSetsItsOwnChoiceOfTheFunctionName) {
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

// Other processes write between two records, and not in the middle of one.
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
            file_calls::WaitFor("FlushFileBuffers", 3 * i);  // in the record, and twice behind it
            EXPECT_FALSE(isLocked());
        }
        EXPECT_EQ(nUnlockedWrites, 0);
        EXPECT_EQ(file_calls::Count("VexCreateFile"), 1);
        close(nFile);
    });
    EXPECT_EQ(RecordsOf(LogPath()).size(), 3U);
}

TEST_F(ManagerTest, OutputTakesItsTextAsItIs) {
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

}  // namespace
