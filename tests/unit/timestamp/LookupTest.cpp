// Names of hosts. The getaddrinfo of this program is a name server that answers when a test wants it to.
#include "timestamp/Lookup.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>

#include "SystemCalls.h"
#include "TimeStampWorld.h"

namespace {

std::atomic<bool> s_bAnswers = true;
std::atomic<int> s_cAsked = 0;
std::atomic<bool> s_bSignalsReach = false;

// What the next lookup returns; 0: an address.
struct Answer {
    int nResult = 0;
    int nErrno = 0;
};
std::atomic<Answer> s_answer;

thread_local bool t_bNoThreads = false;

// Only this host is asked for here.
constexpr std::string_view kHost = "clock.test";
constexpr const char* kThreadName = "name server";

}  // namespace

extern "C" int getaddrinfo(const char* pszHost, const char* pszPort, const addrinfo* pHints, addrinfo** ppFound) {
    static auto* const s_pNext = system_calls::Next(getaddrinfo, "getaddrinfo");
    if (pszHost != kHost || (pHints->ai_flags & AI_NUMERICHOST) != 0) {
        return s_pNext(pszHost, pszPort, pHints, ppFound);
    }
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    s_bSignalsReach = sigismember(&blocked, SIGTERM) == 0 || sigismember(&blocked, SIGUSR1) == 0;
    pthread_setname_np(pthread_self(), kThreadName);
    ++s_cAsked;
    s_bAnswers.wait(false);
    if (const Answer answer = s_answer; answer.nResult != 0) {
        errno = answer.nErrno;
        return answer.nResult;
    }
    return s_pNext("127.0.0.1", pszPort, pHints, ppFound);
}

extern "C" int pthread_create(pthread_t* pThread, const pthread_attr_t* pAttributes, void* (*pFunction)(void*),
                              void* pArgument) noexcept {
    static auto* const s_pNext = system_calls::Next(pthread_create, "pthread_create");
    return t_bNoThreads ? EAGAIN : s_pNext(pThread, pAttributes, pFunction, pArgument);
}

namespace vextimestamp {
namespace {

using namespace std::chrono_literals;

Deadline In(std::chrono::milliseconds time) {
    return std::chrono::steady_clock::now() + time;
}

int s_cStarted = 0;

std::string FaultOfLookup(Deadline deadline) {
    std::string strFault = FaultOf([&] { AddressesOf(std::string(kHost), "80", deadline); });
    s_cStarted += strFault.starts_with("too many") ? 0 : 1;
    return strFault;
}
std::string FaultOfLookup(std::chrono::milliseconds time) {
    return FaultOfLookup(In(time));
}

// Whether one of the threads that the name server had is still there.
bool ALookupRuns() {
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return std::any_of(begin(threads), end(threads), [](const auto& thread) {
        std::string strName;
        return std::getline(std::ifstream(thread.path() / "comm"), strName) && strName == kThreadName;
    });
}

class LookupTest : public testing::Test {
protected:
    void SetUp() override { WaitForAll(); }
    void TearDown() override {
        s_bAnswers = true;
        s_bAnswers.notify_all();
        WaitForAll();
    }
    static void Silence() { s_bAnswers = false; }

private:
    // Returns when all lookups have ended, also those that were given up.
    static void WaitForAll() {
        while (s_cAsked < s_cStarted || ALookupRuns()) {
            std::this_thread::yield();
        }
    }
};

TEST_F(LookupTest, FindsAHostInAThreadThatGetsNoSignals) {
    EXPECT_EQ(FaultOfLookup(60s), "");
    EXPECT_FALSE(s_bSignalsReach);
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 0) << "the caller gets them as before";
}

TEST_F(LookupTest, ReportsWhatTheNameServersSay) {
    const auto reason = [](Answer answer) {
        s_answer = answer;
        const std::string strFault = FaultOfLookup(60s);
        s_answer = Answer();
        return strFault;
    };
    EXPECT_THAT(reason({EAI_AGAIN}), testing::HasSubstr("Temporary failure in name resolution"));
    EXPECT_THAT(reason({EAI_FAIL}), testing::HasSubstr("Non-recoverable failure in name resolution"));
    EXPECT_THAT(reason({EAI_MEMORY}), testing::HasSubstr("Memory allocation failure"));
    EXPECT_THAT(reason({EAI_NONAME}), testing::HasSubstr("Name or service not known"));
    EXPECT_THAT(reason({EAI_SYSTEM, EMFILE}), testing::HasSubstr("Too many open files"));
    EXPECT_THAT(reason({EAI_FAMILY}), testing::HasSubstr("error " + std::to_string(EAI_FAMILY) + " of getaddrinfo"));
}

TEST_F(LookupTest, ReportsThatThereIsNoThread) {
    t_bNoThreads = true;
    const int cBefore = s_cStarted;
    EXPECT_EQ(FaultOfLookup(60s),
              "the system has no thread for the lookup of a host: Resource temporarily unavailable");
    t_bNoThreads = false;
    s_cStarted = cBefore;
    EXPECT_EQ(FaultOfLookup(60s), "");
}

TEST_F(LookupTest, AnAddressInDigitsAsksNobody) {
    const int cBefore = s_cAsked;
    for (const auto& [pszHost, nFamily] : {std::pair("127.0.0.1", AF_INET), std::pair("::1", AF_INET6)}) {
        EXPECT_EQ(AddressesOf(pszHost, "80", In(-1s))->ai_family, nFamily);
    }
    EXPECT_EQ(s_cAsked, cBefore);
}

TEST_F(LookupTest, EndsAtTheDeadlineIfNoNameServerAnswers) {
    Silence();
    const Deadline deadline = In(100ms);
    EXPECT_THAT(FaultOfLookup(deadline), testing::HasSubstr("do not give the address of \"clock.test\" in time"));
    EXPECT_GE(std::chrono::steady_clock::now(), deadline);
    EXPECT_LT(std::chrono::steady_clock::now(), deadline + 15s);
}

TEST_F(LookupTest, ThatNobodyWaitsForAreNotWithoutNumber) {
    Silence();
    for (int i = 0; i < kMostLookups; ++i) {
        EXPECT_THAT(FaultOfLookup(1ms), testing::HasSubstr("in time")) << i;
    }
    EXPECT_THAT(FaultOfLookup(60s), testing::HasSubstr("too many earlier lookups"));
    TearDown();
    EXPECT_EQ(FaultOfLookup(60s), "");
}

// It has none of the threads, and libc's own lookups with a deadline do not end in it.
TEST_F(LookupTest, AForkedChildFindsHosts) {
    EXPECT_EQ(FaultOfLookup(60s), "");
    Silence();
    for (int i = 0; i < kMostLookups; ++i) {
        FaultOfLookup(1ms);
    }
    const pid_t nChild = fork();
    ASSERT_GE(nChild, 0);
    if (nChild == 0) {
        s_bAnswers = true;
        alarm(60);
        _exit(FaultOfLookup(60s).empty() ? 0 : 1);
    }
    int nStatus = -1;
    ASSERT_EQ(waitpid(nChild, &nStatus, 0), nChild);
    EXPECT_EQ(nStatus, 0);
}

}  // namespace
}  // namespace vextimestamp
