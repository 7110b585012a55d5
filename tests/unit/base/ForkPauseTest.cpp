// Local times follow the current time zone, and a forked child finds libc's locks free.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <ctime>
#include <cwchar>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "ForkWhile.h"
#include "OwnMounts.h"
#include "Scale.h"
#include "TempDirectory.h"
#include "VEXForkPause.h"

namespace {

constexpr std::time_t kNoon = 951'825'600;  // 2000-02-29 12:00 UTC
constexpr const char* kSystemZone = "/etc/localtime";

// "hour:minute name"
std::string TextOf(std::time_t time) {
    std::tm local = {};
    char szText[64] = "(no time)";
    if (CVEXForkPause().LocalTime(time, local)) {
        std::strftime(szText, sizeof szText, "%H:%M %Z", &local);
    }
    return szText;
}

// The content of a time zone file with one offset and a name of three letters.
std::string ZoneFile(int nSecondsEast, const std::string& strName) {
    const auto number = [](int n) {
        const auto u = static_cast<unsigned>(n);
        return std::string{static_cast<char>(u >> 24), static_cast<char>(u >> 16), static_cast<char>(u >> 8),
                           static_cast<char>(u)};
    };
    const std::string strHeader = "TZif" + std::string(16, '\0') + number(0) + number(0) + number(0) + number(0) +
                                  number(1) + number(static_cast<int>(strName.size()) + 1);
    return strHeader + number(nSecondsEast) + std::string(2, '\0') + strName + '\0';
}

std::string Noon() {
    return TextOf(kNoon);
}

class ForkPauseTest : public testing::Test {
protected:
    ~ForkPauseTest() override { unsetenv("TZ"); }
};

TEST_F(ForkPauseTest, FollowsTZWhileTheProcessRuns) {
    struct Zone {
        const char* pszTZ;
        const char* pszNoon;
    };
    for (const Zone& zone : {Zone{"UTC0", "12:00 UTC"}, Zone{"AAA-5:30", "17:30 AAA"}, Zone{"BBB+8", "04:00 BBB"},
                             Zone{"AAA-5:30", "17:30 AAA"}}) {
        setenv("TZ", zone.pszTZ, 1);
        EXPECT_EQ(Noon(), zone.pszNoon);
    }
}

// As after a change of the machine's time zone. The child has its own mounts.
TEST_F(ForkPauseTest, FollowsTheSystemsZoneFromTheNextSecondOn) {
    const TempDirectory directory;
    const std::string strFirst = directory.Write("first", ZoneFile(2 * 3600, "ONE"));
    const std::string strSecond = directory.Write("second", ZoneFile(-3 * 3600, "TWO"));
    if (access(kSystemZone, F_OK) != 0) {
        GTEST_SKIP() << "skipped: there is no " << kSystemZone;
    }
    constexpr int kNoMounts = 77;
    const ChildEnd end = RunChild([&] {
        unsetenv("TZ");
        if (!HaveOwnMounts()) {
            _exit(kNoMounts);
        }
        ASSERT_EQ(mount(strFirst.c_str(), kSystemZone, nullptr, MS_BIND, nullptr), 0);
        EXPECT_EQ(Noon(), "14:00 ONE");
        ASSERT_EQ(mount(strSecond.c_str(), kSystemZone, nullptr, MS_BIND, nullptr), 0);
        EXPECT_EQ(TextOf(kNoon + 1), "09:00 TWO");
        EXPECT_EQ(Noon(), "09:00 TWO");
        setenv("TZ", "AAA-5:30", 1);
        EXPECT_EQ(Noon(), "17:30 AAA") << "TZ counts at once";
        unsetenv("TZ");
        EXPECT_EQ(Noon(), "09:00 TWO");
    });
    if (end.nStatus == kNoMounts) {
        GTEST_SKIP() << "skipped: this process may not mount files of its own";
    }
    EXPECT_TRUE(end.Passed());
}

TEST_F(ForkPauseTest, AYearThatDoesNotFitIsAFailure) {
    std::tm local = {};
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(CVEXForkPause().LocalTime(std::time_t{1} << 60, local));
    }
    EXPECT_TRUE(CVEXForkPause().LocalTime(kNoon, local));
}

TEST_F(ForkPauseTest, AForkedChildHasLocalTimes) {
    ForkWhile(4, Scaled(300), [] {
        std::tm local = {};
        CVEXForkPause().LocalTime(kNoon, local);
    });
}

TEST_F(ForkPauseTest, AForkedChildFormatsWideText) {
    ForkWhile(4, Scaled(300), [] {
        wchar_t szText[64];
        const CVEXForkPause pause;
        std::swprintf(szText, std::size(szText), L"%ls %d", L"text", 7);
    });
}

// A fork does not begin before the scope ends.
TEST_F(ForkPauseTest, AForkWaitsForTheEndOfAllScopes) {
    std::atomic<bool> bEnded = false;
    std::latch inScope(2);
    std::latch goOn(1);
    std::vector<std::jthread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&, i] {
            const CVEXForkPause pause;
            inScope.arrive_and_wait();
            if (i == 0) {
                goOn.wait();
                usleep(1000);  // in this time a fork that does not wait would return
                bEnded = true;
            }
        });
    }
    inScope.wait();
    std::thread forking([&] {
        goOn.count_down();
        const pid_t nChild = fork();
        if (nChild == 0) {
            _exit(bEnded ? 0 : 1);
        }
        int nStatus = -1;
        EXPECT_EQ(waitpid(nChild, &nStatus, 0), nChild);
        EXPECT_EQ(nStatus, 0);
    });
    forking.join();
}

}  // namespace
