// The trace of the IPC client.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <thread>

#include "ForkWhile.h"
#include "IpcTest.h"
#include "Scale.h"
#include "TempDirectory.h"

namespace {

class IpcTrace : public IpcTest {
protected:
    static std::string Content() { return ReadWholeFile(TracePath()); }

    // 2024-03-01 12:05:09 in the local time zone.
    static std::time_t FirstOfMarch() {
        std::tm local = {};
        local.tm_year = 2024 - 1900;
        local.tm_mon = 2;
        local.tm_mday = 1;
        local.tm_hour = 12;
        local.tm_min = 5;
        local.tm_sec = 9;
        local.tm_isdst = -1;
        return std::mktime(&local);
    }

    // The number with at least four digits.
    static std::string Padded(int n) {
        char szNumber[16];
        std::snprintf(szNumber, sizeof szNumber, "%04d", n);
        return szNumber;
    }
};

TEST_F(IpcTrace, IsOffWithoutItsMarker) {
    pv_logEx("abc");
    EXPECT_FALSE(std::filesystem::exists(TracePath()));
    SwitchTraceOn();
    pv_logEx("abc");
    const std::string strOne = Content();
    EXPECT_NE(strOne, "");
    SwitchTraceOff();
    pv_logEx("def");
    EXPECT_EQ(Content(), strOne);
}

TEST_F(IpcTrace, LinesByteForByte) {
    SwitchTraceOn();
    const std::string strWho =
        "[P" + Padded(getpid()) + "] [T" + Padded(static_cast<int>(pthread_self())) + "] [2024-03-01 12:05:09:";
    {
        const socket_calls::FixedTime time(FirstOfMarch(), 7);
        pv_logEx("abc");
    }
    EXPECT_EQ(Content(), strWho + "007]: abc\n");
    {
        const socket_calls::FixedTime time(FirstOfMarch(), 123456);
        pv_logEx("%s=%d\n", "number", 5);
    }
    EXPECT_EQ(Content(), strWho + "007]: abc\n" + strWho + "123456]: number=5\n\n");
}

TEST_F(IpcTrace, NoPrefixWithoutATime) {
    SwitchTraceOn();
    {
        const socket_calls::Failure failure("gettimeofday", EINVAL);
        pv_logEx("abc");
    }
    EXPECT_EQ(Content(), "abc\n");
    {
        // A year that does not fit.
        const socket_calls::FixedTime time(std::time_t{1} << 60, 0);
        pv_logEx("def");
    }
    EXPECT_EQ(Content(), "abc\ndef\n");
}

TEST_F(IpcTrace, FollowsAChangeOfTheTimeZone) {
    SwitchTraceOn();
    const socket_calls::FixedTime time(951'825'600, 7);  // 2000-02-29 12:00 UTC
    for (const char* pszZone : {"AAA-5:30", "BBB+8"}) {
        setenv("TZ", pszZone, 1);
        pv_logEx("abc");
    }
    unsetenv("TZ");
    const std::string strTrace = Content();
    EXPECT_NE(strTrace.find("[2000-02-29 17:30:00:007]: abc\n"), std::string::npos) << strTrace;
    EXPECT_NE(strTrace.find("[2000-02-29 04:00:00:007]: abc\n"), std::string::npos) << strTrace;
}

TEST_F(IpcTrace, AForkedChildTraces) {
    SwitchTraceOn();
    ForkWhile(4, Scaled(300), [] { pv_logEx("abc"); });
}

TEST_F(IpcTrace, LongTextsAreCut) {
    SwitchTraceOn();
    for (const std::size_t cb : {1022U, 1023U, 1024U, 5000U}) {
        std::filesystem::remove(TracePath());
        const std::string strText(cb, 'x');
        {
            const socket_calls::Failure failure("gettimeofday", EINVAL);
            pv_logEx("%s", strText.c_str());
        }
        EXPECT_EQ(Content(), std::string(std::min<std::size_t>(cb, 1023), 'x') + "\n");
    }
}

TEST_F(IpcTrace, DoesNotChangeErrno) {
    errno = EDOM;
    pv_logEx("off");
    EXPECT_EQ(errno, EDOM);
    SwitchTraceOn();
    pv_logEx("on");
    EXPECT_EQ(errno, EDOM);
    std::filesystem::remove(TracePath());
    std::filesystem::create_directory(TracePath());
    pv_logEx("cannot be opened");
    EXPECT_EQ(errno, EDOM);
    std::filesystem::remove(TracePath());
}

// A file that must not grow fails like a full disk: when the file is closed, because the line is written then.
TEST_F(IpcTrace, DoesNotChangeErrnoWhenWritingFails) {
    SwitchTraceOn();
    pv_logEx("written");
    const std::string strBefore = Content();
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit full = {strBefore.size(), before.rlim_max};
    const auto pfnBefore = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
    errno = EDOM;
    pv_logEx("lost");
    const int nError = errno;
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    std::signal(SIGXFSZ, pfnBefore);
    EXPECT_EQ(nError, EDOM);
    EXPECT_EQ(Content(), strBefore);
}

TEST_F(IpcTrace, LinesOfSeveralThreadsDoNotMix) {
    SwitchTraceOn();
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    const std::string strText(300, 'x');
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int nLine = 0; nLine < kLines; ++nLine) {
                pv_logEx("%s", strText.c_str());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::vector<std::string> lines = Trace();
    EXPECT_EQ(lines.size(), std::size_t{kThreads * kLines});
    for (const std::string& strLine : lines) {
        ASSERT_EQ(strLine, strText);
    }
}

}  // namespace
