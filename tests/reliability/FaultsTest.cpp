// Runs a scenario of all fifteen natives, with the log on, once for each call in it that can fail. That call fails.
// There must be no crash and no leak. The native with the failing call returns 0, 1 or null, or throws the
// std::bad_alloc of an allocation. The other natives are not affected.
//
// Child processes run the fault points. If one crashes, a new one continues with the next point.
#include <gtest/gtest.h>
#include <jni.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Amount.h"
#include "ChildProcess.h"
#include "FaultPoints.h"
#include "FaultScenario.h"
#include "FaultyJniEnv.h"
#include "LogIdle.h"
#include "OpenSslCrashes.h"
#include "VCTK.h"
#include "vex_jni_TAVClientJNI.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

using fault_points::How;
using fault_points::Pause;
using fault_points::Where;

// ---- A run of the scenario ----

// The findings of a run that are no failures of the test.
struct Findings {
    long nThrown = 0;                     // natives that threw std::bad_alloc
    bool bOpenSslDamage = false;          // a later call on the same object failed too
    bool bOpenSslLeaks = false;           // OpenSSL is known to leak a block after a failure at this point
    std::set<std::string> withException;  // JNI functions called while an exception was pending
};

// Whether a failing function of the toolkit must make the native fail. The bridge ignores the result of the call queue.
// VCTK_GetLastError has no failing result.
bool HasToBeSeen(std::string_view failed) {
    return failed.starts_with("VCTK_") && failed != "VCTK_CallQueueEnable" && failed != "VCTK_GetLastError";
}

bool FailedToAllocate() {
    const char* const pszFailed = fault_points::Failed();
    return pszFailed != nullptr && fault_points::IsAllocation(pszFailed);
}

bool IsExpected(Kind kind, bool bFailed, jlong nResult) {
    switch (kind) {
        case Kind::kHandle:
            return (nResult == 0) == bFailed;
        case Kind::kStatus:
            return nResult == (bFailed ? 1 : 0);
        case Kind::kText:
            return (nResult == 0) == bFailed;
        case Kind::kNull:
            return nResult == 0;
        case Kind::kNumber:
            return true;
    }
    return false;
}

// Runs the scenario; faults may be armed. strWrong receives the differences from the expected results.
void RunScenario(Findings& findings, std::string& strWrong, How how = How::kOnce) {
    FaultyJniEnv* pEnv = nullptr;
    {
        const Pause pause;
        pEnv = new FaultyJniEnv;
    }
    jlong handle = 0;
    bool bHit = false;
    for (const Step& step : Scenario()) {
        const bool bHitBefore = bHit;
        bool bThrown = false;
        jlong nResult = 0;
        try {
            nResult = step.fnCall(*pEnv, handle);
        } catch (const std::bad_alloc&) {
            bThrown = true;
        }
        const Pause pause;
        bHit = fault_points::Failed() != nullptr;
        const bool bHere = bHit && (!bHitBefore || how == How::kFromThereOn);
        const bool bExpectFailure =
            handle == 0 && step.kind != Kind::kHandle && std::string_view(step.pszNative) != "GetSignVersion";
        const bool bCanBeBoth =
            bHere && (IsExpected(step.kind, true, nResult) || IsExpected(step.kind, false, nResult));
        if (bThrown) {
            ++findings.nThrown;
            if (!bHere || (how == How::kOnce && !FailedToAllocate())) {
                strWrong += std::string(step.pszNative) + " threw; ";
            }
        } else if (pEnv->TakeException()) {
            // Java gets the exception and no result.
        } else if (bHit && !bHere && !IsExpected(step.kind, bExpectFailure, nResult) &&
                   fault_points::FailedInOpenSsl() && IsExpected(step.kind, true, nResult)) {
            findings.bOpenSslDamage = true;  // of an object that OpenSSL still uses
        } else if (!bCanBeBoth && !IsExpected(step.kind, bExpectFailure, nResult)) {
            strWrong += std::string(step.pszNative) + " gave " + std::to_string(nResult) + "; ";
        } else if (bHere && HasToBeSeen(fault_points::Failed()) && !IsExpected(step.kind, true, nResult)) {
            strWrong += std::string(step.pszNative) + " hid a failure; ";
        }
        if (step.kind == Kind::kHandle) {
            handle = nResult;
            // Java never gets the handle of an Initialize that throws.
            if (bThrown && fault_points::LastHandle() != nullptr) {
                VCTK_Finalize(fault_points::LastHandle());
            }
        }
    }
    const Pause pause;
    if (handle != 0) {
        VCTK_Finalize(reinterpret_cast<HANDLE>(handle));  // fails, unless the native Finalize failed
    }
    if (!pEnv->CalledWithException().empty()) {
        findings.withException.insert(pEnv->CalledWithException());
    }
    delete pEnv;
}

// ---- Processes ----

// The memory that the processes of one run share.
struct Shared {
    long nCurrent;
    long nDone;
    long nFailures;
    long nThrown;
    long nOpenSslCrashes;
    long nOpenSslDamage;
    long nOpenSslLeaks;
    long nWithException;
    std::array<std::array<char, 64>, 32> withException;
    long nPoints;
    std::array<bool, 65536> openSsl;  // whether OpenSSL makes the allocation at the point
};

class FaultsTest : public testing::Test {
protected:
    FaultsTest() {
        setenv("LC_ALL", "C.UTF-8", 1);
        // Created now, because memory fails later.
        StoreUri();
        Scenario();
        void* const p = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        m_pShared = static_cast<Shared*>(p);
    }
    ~FaultsTest() override { munmap(m_pShared, sizeof(Shared)); }

    // Runs fnPoint for each point in a child process, and starts a new child when it crashes. bEachAlone: each
    // point has its own child.
    void RunPoints(
        const std::vector<long>& points, bool bEachAlone, const std::function<void(long)>& fnPoint,
        const std::function<void()>& fnAtStart = [] {}) {
        *m_pShared = {};
        const auto nPoints = static_cast<long>(points.size());
        while (m_pShared->nCurrent < nPoints) {
            std::fflush(nullptr);
            const pid_t nChild = fork();
            ASSERT_GE(nChild, 0);
            if (nChild == 0) {
                CatchOpenSslCrashes();
                // The log's fallback files go into the current directory.
                if (chdir(m_directory.Path().c_str()) != 0) {
                    _exit(1);
                }
                fnAtStart();
                do {
                    alarm(60);
                    fnPoint(points[static_cast<std::size_t>(m_pShared->nCurrent)]);
                    ++m_pShared->nDone;
                    ++m_pShared->nCurrent;
                } while (!bEachAlone && m_pShared->nCurrent < nPoints && m_pShared->nFailures < kMostFailures);
#if defined(__SANITIZE_ADDRESS__)
                if (__lsan_do_recoverable_leak_check() != 0) {
                    NoteFailure("LeakSanitizer found a leak");
                }
#endif
                EndChildAtOnce();
            }
            int nStatus = -1;
            ASSERT_EQ(waitpid(nChild, &nStatus, 0), nChild);
            if (WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == kOpenSslCrash) {
                ++m_pShared->nOpenSslCrashes;
                ++m_pShared->nDone;
                ++m_pShared->nCurrent;
            } else if (nStatus != 0) {
                NoteFailure("crash at point " + std::to_string(points[static_cast<std::size_t>(m_pShared->nCurrent)]) +
                            ", wait status " + std::to_string(nStatus));
                ++m_pShared->nCurrent;
            }
            if (m_pShared->nFailures >= kMostFailures) {
                break;
            }
        }
        EXPECT_EQ(m_pShared->nFailures, 0);
    }

    // Parent or child. GoogleTest does not see failures in a child, so shared memory counts them.
    void NoteFailure(const std::string& strWhat) const {
        std::printf("%s\n", strWhat.c_str());
        std::fflush(stdout);  // the process may crash later
        ++m_pShared->nFailures;
    }

    void Report(const char* pszWhat) const {
        std::printf("%s: %ld fault points, %ld of them passed out as std::bad_alloc\n", pszWhat, m_pShared->nDone,
                    m_pShared->nThrown);
        std::printf(
            "  in OpenSSL without memory: %ld crashes of its own, %ld leaks of its own, %ld objects useless until they "
            "are"
            " reopened\n",
            m_pShared->nOpenSslCrashes, m_pShared->nOpenSslLeaks, m_pShared->nOpenSslDamage);
        for (long i = 0; i < m_pShared->nWithException; ++i) {
            std::printf("  no JVM survives: %s\n", m_pShared->withException[static_cast<std::size_t>(i)].data());
        }
    }

    // Child only: adds the findings to the shared memory.
    void Keep(const Findings& findings) const {
        m_pShared->nThrown += findings.nThrown > 0 ? 1 : 0;
        m_pShared->nOpenSslDamage += findings.bOpenSslDamage ? 1 : 0;
        for (const std::string& strCalls : findings.withException) {
            auto& kept = m_pShared->withException;
            bool bKnown = false;
            for (long i = 0; i < m_pShared->nWithException; ++i) {
                bKnown = bKnown || strCalls == kept[static_cast<std::size_t>(i)].data();
            }
            if (!bKnown && static_cast<std::size_t>(m_pShared->nWithException) < kept.size()) {
                strCalls.copy(kept[static_cast<std::size_t>(m_pShared->nWithException++)].data(), 63);
            }
        }
    }

    // Runs the body, which makes a call fail, and repeats it when it leaves blocks behind. Blocks that stay once are a
    // cache. Blocks that are added each time are a leak.
    void ExpectNoLeak(long nPoint, const std::function<void(Findings&, std::string&)>& fnBody) const {
        constexpr int kMostRepetitions = 4;
        bool bOpenSslLeaks = false;
        for (int i = 0; i < kMostRepetitions; ++i) {
            Findings findings;
            std::string strWrong;
            const long nBefore = fault_points::LiveBlocks();
            fnBody(findings, strWrong);
            if (!strWrong.empty()) {
                NoteFailure(strWrong + "at point " + std::to_string(nPoint));
                return;
            }
            if (i == 0) {
                Keep(findings);
            }
            bOpenSslLeaks = findings.bOpenSslLeaks;
            findings = {};
            strWrong = {};
            if (fault_points::LiveBlocks() <= nBefore) {
                return;
            }
        }
        if (bOpenSslLeaks) {
            ++m_pShared->nOpenSslLeaks;
            return;
        }
        NoteFailure("a leak at point " + std::to_string(nPoint));
    }

    // Returns the fault points of a run without faults, which fnCount counts. Of OpenSSL's allocations it takes about
    // nOpenSsl, spread evenly; 0: all.
    std::vector<long> CollectPoints(long nOpenSsl, const std::function<long()>& fnCount) {
        RunPoints({1}, true, [&](long) {
            fault_points::NoteOpenSsl(m_pShared->openSsl.data(), static_cast<long>(m_pShared->openSsl.size()));
            m_pShared->nPoints = fnCount();
        });
        const long nPoints = m_pShared->nPoints;
        EXPECT_GT(nPoints, 0);
        EXPECT_LE(nPoints, static_cast<long>(m_pShared->openSsl.size()));
        const auto& openSsl = m_pShared->openSsl;
        const long nAllOpenSsl = std::count(openSsl.begin(), openSsl.begin() + nPoints, true);
        const long nStep = nOpenSsl > 0 && nAllOpenSsl > nOpenSsl ? nAllOpenSsl / nOpenSsl : 1;
        std::printf("%ld calls that can fail, %ld of them OpenSSL's for memory\n", nPoints, nAllOpenSsl);
        std::vector<long> points;
        auto nSeen = static_cast<long>(SeedOfRun() % 1000);
        for (long n = 1; n <= nPoints; ++n) {
            if (!openSsl[static_cast<std::size_t>(n - 1)] || ++nSeen % nStep == 0) {
                points.push_back(n);
            }
        }
        return points;
    }

    static constexpr long kMostFailures = 20;

    const TempDirectory m_directory;
    Shared* m_pShared;
};

// Afterwards the log's writer is idle, and the caches have their final size.
void WarmUp() {
    Findings findings;
    std::string strWrong;
    for (int i = 0; i < 3; ++i) {
        RunScenario(findings, strWrong);
        log_idle::Wait();
    }
    ASSERT_EQ(strWrong, "");
}

// Returns about nWanted of the points, spread evenly; 0: all.
std::vector<long> Thinned(const std::vector<long>& points, long nWanted) {
    const auto nStep = nWanted > 0 ? std::max(points.size() / static_cast<std::size_t>(nWanted), std::size_t{1}) : 1;
    std::vector<long> thinned;
    for (std::size_t i = SeedOfRun() % nStep; i < points.size(); i += nStep) {
        thinned.push_back(points[i]);
    }
    return thinned;
}

class CallerTest : public FaultsTest, public testing::WithParamInterface<How> {};

TEST_P(CallerTest, EveryCallOfTheScenario) {
    const How how = GetParam();
    // Under a sanitizer only operator new fails.
    auto points = CollectPoints(AmountOf("VEX_TEST_OPENSSL_FAULTS", how == How::kOnce ? 800 : 40), [] {
        WarmUp();
        fault_points::Arm(Where::kHere, 0);
        Findings findings;
        std::string strWrong;
        RunScenario(findings, strWrong);
        return fault_points::Disarm();
    });
    if (how == How::kFromThereOn) {
        points = Thinned(points, AmountOf("VEX_TEST_LASTING_FAULTS", 300));
    }
    const long nCleanEvery = AmountOf("VEX_TEST_FAULTS_PER_CHECK", 4);
    RunPoints(
        points, false,
        [&](long nPoint) {
            ExpectNoLeak(nPoint, [&](Findings& findings, std::string& strWrong) {
                fault_points::Arm(Where::kHere, nPoint, how);
                RunScenario(findings, strWrong, how);
                fault_points::Disarm();
                findings.bOpenSslLeaks = fault_points::OpenSslLeaks();
                if (!strWrong.empty() && fault_points::Failed() != nullptr) {
                    strWrong += std::string("in ") + fault_points::Failed() + " ";
                }
                // The failure has no later effect: the next run succeeds.
                if (nPoint % nCleanEvery == 0) {
                    fault_points::Arm(Where::kHere, 0);
                    RunScenario(findings, strWrong);
                    fault_points::Disarm();
                }
                log_idle::Wait();
            });
        },
        WarmUp);
    Report(how == How::kOnce ? "One call fails" : "Memory stays short");
}

INSTANTIATE_TEST_SUITE_P(, CallerTest, testing::Values(How::kOnce, How::kFromThereOn));

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The search for leaks finds a leak, and treats a single allocation as a cache.
TEST_F(FaultsTest, ALeakIsSeen) {
    std::vector<std::unique_ptr<int>> leaked;
    leaked.reserve(16);
    ExpectNoLeak(0, [&](Findings&, std::string&) {
        if (leaked.empty()) {
            leaked.push_back(std::make_unique<int>());
        }
    });
    EXPECT_EQ(m_pShared->nFailures, 0);
    ExpectNoLeak(0, [&](Findings&, std::string&) { leaked.push_back(std::make_unique<int>()); });
    EXPECT_EQ(m_pShared->nFailures, 1);
}
#endif

// The log's writer thread cannot report a failure to a caller. It loses at most a record.
TEST_F(FaultsTest, TheLogsWriter) {
    const auto trace = [] {
        const Pause pause;
        FaultyJniEnv env;
        Java_vex_jni_TAVClientJNI_GetSignVersion(env.Get(), nullptr, 0);
        log_idle::Wait();
    };
    const auto points = CollectPoints(0, [&] {
        WarmUp();
        trace();
        fault_points::Arm(Where::kElsewhere, 0);
        trace();
        return fault_points::Disarm();
    });
    for (const How how : {How::kOnce, How::kFromThereOn}) {
        RunPoints(
            points, false,
            [&](long nPoint) {
                ExpectNoLeak(nPoint, [&](Findings&, std::string&) {
                    fault_points::Arm(Where::kElsewhere, nPoint, how);
                    trace();
                    fault_points::Disarm();
                    trace();
                });
            },
            WarmUp);
        Report("The log's writer");
    }
}

// A process's first calls set up the log and OpenSSL, so each point has its own process. A part that OpenSSL could not
// set up stays unusable in that process. The natives then fail, without further harm.
TEST_F(FaultsTest, TheFirstCallsOfAProcess) {
    const auto points = CollectPoints(AmountOf("VEX_TEST_OPENSSL_FAULTS", 60), [] {
        fault_points::Arm(Where::kHere, 0);
        Findings findings;
        std::string strWrong;
        RunScenario(findings, strWrong);
        return fault_points::Disarm();
    });
    RunPoints(Thinned(points, AmountOf("VEX_TEST_FIRST_FAULTS", 150)), true, [&](long nPoint) {
        fault_points::Arm(Where::kHere, nPoint);
        Findings findings;
        std::string strWrong;
        RunScenario(findings, strWrong);
        fault_points::Disarm();
        Keep(findings);
        if (!strWrong.empty()) {
            NoteFailure(strWrong + "at point " + std::to_string(nPoint));
        }
    });
    Report("A process's first calls");
}

}  // namespace
