// SIGKILL at every file call of the log, in the middle of a write, and at random moments. The next process continues
// the log: all its records are whole, and at most one entry is torn. A process that is killed while it cuts the file
// can leave a second torn entry, where the kept part meets the old text. The file begins with its mark, unless the
// process that created it was killed before it wrote the mark.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <optional>
#include <random>
#include <thread>
#include <vector>

#include "Amount.h"
#include "ChildProcess.h"
#include "DebugLogMgr.h"
#include "KillPoint.h"
#include "LogFile.h"
#include "LogTest.h"
#include "TempDirectory.h"
#include "Threads.h"

namespace {

constexpr unsigned kMaxSeconds = 60;
constexpr int kOfNext = 3;  // records of the process that continues the log

// A message that tells whether it is whole: "first 3 5 #####".
std::wstring MessageOf(const wchar_t* pszWho, int nRecord, int cchPadding) {
    return std::wstring(pszWho) + L" " + std::to_wstring(nRecord) + L" " + std::to_wstring(cchPadding) + L" " +
           std::wstring(static_cast<std::size_t>(cchPadding), L'#');
}

struct Message {
    std::string strWho;
    int nRecord = 0;
};

std::optional<int> TakeNumber(std::string_view& text) {
    int n = 0;
    const auto [pchEnd, error] = std::from_chars(text.data(), text.data() + text.size(), n);
    const auto cch = static_cast<std::size_t>(pchEnd - text.data());
    if (error != std::errc() || cch == text.size() || text[cch] != ' ') {
        return std::nullopt;
    }
    text.remove_prefix(cch + 1);
    return n;
}

// Returns nothing when the entry is not a whole record of these tests.
std::optional<Message> WholeMessage(const std::string& strEntry) {
    const std::optional<LogRecord> record = ParseLogRecord(strEntry);
    if (!record) {
        return std::nullopt;
    }
    std::string_view text = record->strMessage;
    Message message;
    if (record->strType == "[MARK] ") {  // of WaitUntilWritten
        message.strWho = "mark";
        return text.starts_with("mark ") && text.find_first_not_of("0123456789.", 5) == text.npos
                   ? std::optional(message)
                   : std::nullopt;
    }
    message.strWho = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(message.strWho.size() + 1, text.size()));
    const std::optional<int> nRecord = TakeNumber(text);
    const std::optional<int> cchPadding = nRecord ? TakeNumber(text) : std::nullopt;
    if (!cchPadding || text != std::string(static_cast<std::size_t>(*cchPadding), '#')) {
        return std::nullopt;
    }
    message.nRecord = *nRecord;
    return message;
}

// The contents of a log.
struct Picture {
    bool bThere = false;
    bool bMark = false;
    int nTorn = 0;  // incomplete entries, except the first, which a cut may have shortened
    std::vector<Message> messages;
};

Picture PictureOf(const std::string& strPath) {
    const LogFile file = ReadLogFile(strPath);
    Picture picture;
    picture.bThere = std::filesystem::exists(strPath);
    picture.bMark = file.bHeader;
    picture.nTorn = file.strUnfinished.empty() ? 0 : 1;
    bool bFirst = true;
    for (const std::string& strEntry : file.entries) {
        if (std::optional<Message> message = WholeMessage(strEntry)) {
            picture.messages.push_back(*std::move(message));
        } else if (!(bFirst && file.strCut.empty())) {
            ++picture.nTorn;
        }
        bFirst = false;
    }
    return picture;
}

struct Load {
    DWORD dwMaxFileSize = 0x200000;
    DWORD dwTruncatePercent = 20;
    bool bStaysOpen = false;
    std::vector<int> paddings;  // of one record each
};

class KillsTest : public LogTest {
protected:
    // Runs the body in a child process and kills it after nCallsToKill calls, if given. Returns whether it was killed.
    // Otherwise the child must succeed.
    static bool RunVictim(const std::function<void()>& fnBody, std::optional<int> nCallsToKill = {}) {
        std::fflush(nullptr);
        kill_point::Share();
        const pid_t nChild = fork();
        if (nChild == 0) {
            alarm(kMaxSeconds);
            fnBody();
            EndChildAtOnce();
        }
        EXPECT_GT(nChild, 0);
        if (nCallsToKill) {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kMaxSeconds);
            while (kill_point::Read().nCalls < *nCallsToKill && std::chrono::steady_clock::now() < deadline) {
                std::this_thread::yield();
            }
            kill(nChild, SIGKILL);
        }
        int nStatus = 0;
        EXPECT_EQ(waitpid(nChild, &nStatus, 0), nChild);
        if (WIFSIGNALED(nStatus) && WTERMSIG(nStatus) == SIGKILL) {
            return true;
        }
        EXPECT_TRUE(WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0) << "status " << nStatus;
        return false;
    }

    static void WriteRecords(const Load& load) {
        CDebugLogMgr::GetInstance()->SetTruncate(load.dwMaxFileSize, load.dwTruncatePercent);
        CDebugLogMgr::GetInstance()->EnableGlobalMode(load.bStaysOpen);
        for (std::size_t i = 0; i < load.paddings.size(); ++i) {
            Trace(MessageOf(L"first", static_cast<int>(i), load.paddings[i]));
        }
    }

    // Runs the process that follows a killed one, and checks the log.
    void GoOn(const Picture& before, const std::string& strWhere) {
        const kill_point::Account account = kill_point::Read();
        InChild([&] {
            for (int i = 0; i < kOfNext; ++i) {
                Trace(MessageOf(L"next", i, 10));
            }
            WaitUntilWritten(LogPath());
        });
        const Picture after = PictureOf(LogPath());
        const std::string strAll = strWhere + ", killed at call " + std::to_string(account.nCalls) + ", " +
                                   account.strLast + (account.bInCut ? ", in a cut" : "");
        const bool bMayLackMark = before.bThere ? !before.bMark : !account.bMarkWritten;
        EXPECT_TRUE(after.bMark || bMayLackMark) << strAll;
        m_nWithoutMark += after.bMark ? 0 : 1;
        EXPECT_LE(after.nTorn, before.nTorn + (account.bInCut ? 2 : 1)) << strAll;
        ExpectNextIsThere(strAll);
        m_nTorn += after.nTorn > before.nTorn ? 1 : 0;
        m_nInCuts += account.bInCut ? 1 : 0;
    }

    // Its first record can share an entry with the rest of the killed process's last one.
    void ExpectNextIsThere(const std::string& strWhere) {
        const std::string strLog = ReadWholeFile(LogPath());
        std::size_t nFrom = 0;
        for (int i = 0; i < kOfNext; ++i) {
            const std::string strEnd = "]: next " + std::to_string(i) + " 10 ##########\r\n\r\n";
            // Searches from the end: the log can contain equal records of earlier processes.
            const std::size_t nFound = i == 0 ? strLog.rfind(strEnd) : strLog.find(strEnd, nFrom);
            ASSERT_NE(nFound, std::string::npos) << strWhere << ", record " << i;
            nFrom = nFound + strEnd.size();
        }
    }

    // Kills the victim at its first call, then at its second, and so on, until it ends by itself. Each run has a new
    // log.
    void SweepAllCalls(const Load& load, const std::string& strName) {
        for (const auto where : {kill_point::Where::kBefore, kill_point::Where::kInside}) {
            for (int nCall = 1;; ++nCall) {
                std::filesystem::remove(LogPath());
                const bool bKilled = RunVictim([&] {
                    kill_point::Arm(nCall, where);
                    WriteRecords(load);
                    WaitUntilWritten(LogPath());
                });
                if (!bKilled) {
                    ASSERT_GT(nCall, 1);
                    break;
                }
                ++m_nKills;
                GoOn(Picture{}, strName + (where == kill_point::Where::kBefore ? ", before" : ", inside"));
                if (load.dwMaxFileSize == Load{}.dwMaxFileSize) {
                    ExpectNoneIsMissing(nCall);
                }
                if (HasFailure()) {
                    return;
                }
            }
        }
    }

    // Without cuts, the log has the killed process's records from the first one on, without a gap.
    void ExpectNoneIsMissing(int nCall) {
        int nExpected = 0;
        for (const Message& message : PictureOf(LogPath()).messages) {
            if (message.strWho == "first") {
                EXPECT_EQ(message.nRecord, nExpected) << "call " << nCall;
                ++nExpected;
            }
        }
    }

    int m_nKills = 0;
    int m_nInCuts = 0;
    int m_nTorn = 0;
    int m_nWithoutMark = 0;
};

TEST_F(KillsTest, AtEachFileCallOfAppendsToAFreshLog) {
    SweepAllCalls({.paddings = {5, 0, 20}}, "appends");
    std::printf("%d kills, %d of them left a torn entry, %d a log without its mark\n", m_nKills, m_nTorn,
                m_nWithoutMark);
    EXPECT_GE(m_nKills, 40);
    EXPECT_GT(m_nTorn, 0) << "no kill was in the middle of a record";
}

TEST_F(KillsTest, AtEachFileCallOfCuts) {
    SweepAllCalls({.dwMaxFileSize = 300, .dwTruncatePercent = 20, .paddings = {5, 100, 20, 50}}, "cuts");
    std::printf("%d kills, %d of them in a cut\n", m_nKills, m_nInCuts);
    EXPECT_GE(m_nInCuts, 10);
}

TEST_F(KillsTest, AtEachFileCallOfALogThatStaysOpen) {
    SweepAllCalls(
        {.dwMaxFileSize = 300, .dwTruncatePercent = 50, .bStaysOpen = true, .paddings = {5, 100, 20, 50, 100}}, "open");
    std::printf("%d kills, %d of them in a cut\n", m_nKills, m_nInCuts);
    EXPECT_GE(m_nInCuts, 10);
}

// Random loads: kills one process after the other. All use the same log.
TEST_F(KillsTest, AtCallsOfAnyLoadOverOneLog) {
    const long nKills = AmountOf("VEX_TEST_KILLS_CALLS", 40);
    std::mt19937 random(SeedOfRun());
    const auto upTo = [&random](int nMax) { return std::uniform_int_distribution<int>(0, nMax)(random); };
    constexpr std::array<DWORD, 5> kPercents = {1, 20, 50, 99, 100};
    while (m_nKills < nKills && !HasFailure()) {
        Load load{.dwMaxFileSize = static_cast<DWORD>(100 + upTo(3000)),
                  .dwTruncatePercent = kPercents.at(static_cast<std::size_t>(upTo(4))),
                  .bStaysOpen = upTo(3) == 0,
                  .paddings = {}};
        for (int i = 0; i < 8; ++i) {
            load.paddings.push_back(upTo(9) == 0 ? upTo(7000) : upTo(100));
        }
        if (upTo(9) == 0) {
            std::filesystem::remove(LogPath());
        }
        const Picture before = PictureOf(LogPath());
        const int nCall = 1 + upTo(80);
        const auto where = upTo(1) == 0 ? kill_point::Where::kBefore : kill_point::Where::kInside;
        // It writes until it reaches that call.
        ASSERT_TRUE(RunVictim([&] {
            kill_point::Arm(nCall, where);
            for (;;) {
                WriteRecords(load);
            }
        }));
        ++m_nKills;
        GoOn(before, "any load");
    }
    std::printf("%d kills, %d of them in a cut, %d torn entries\n", m_nKills, m_nInCuts, m_nTorn);
}

// Kills the process from outside at random moments while four threads log as fast as they can.
TEST_F(KillsTest, AtAnyTime) {
    const long nKills = AmountOf("VEX_TEST_KILLS_TIMES", 25);
    std::mt19937 random(SeedOfRun() + 1);
    for (int i = 0; i < nKills && !HasFailure(); ++i) {
        if (i % 5 == 0) {
            std::filesystem::remove(LogPath());
        }
        const Picture before = PictureOf(LogPath());
        const int nCalls = std::uniform_int_distribution<int>(1, 1500)(random);
        const bool bKilled = RunVictim(
            [] {
                kill_point::Arm(0, kill_point::Where::kBefore);
                CDebugLogMgr::GetInstance()->SetTruncate(3000, 20);
                OnThreads(4, [](int nThread) {
                    for (int nRecord = nThread;; nRecord += 4) {
                        Trace(MessageOf(L"first", nRecord, nRecord % 200));
                        std::this_thread::yield();
                    }
                });
            },
            nCalls);
        ASSERT_TRUE(bKilled);
        ++m_nKills;
        GoOn(before, "any time");
    }
    std::printf("%d kills, %d of them in a cut, %d torn entries\n", m_nKills, m_nInCuts, m_nTorn);
}

}  // namespace
