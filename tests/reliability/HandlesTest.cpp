// Eight threads call every native with invalid handles: invented, stale, finalised twice. Each call returns the
// native's failing value and sets an error number. The existing objects still work.
#include <gtest/gtest.h>
#include <jni.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Amount.h"
#include "FakeJniEnv.h"
#include "Scale.h"
#include "TestStore.h"
#include "Threads.h"
#include "VCTKError.h"
#include "vex_jni_TAVClientJNI.h"

namespace {

constexpr int kThreads = 8;

class HandlesTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        setenv("LC_ALL", "C.UTF-8", 1);
        // At a higher level the log would write millions of records.
        std::ofstream(std::string(std::getenv("VEX_TEST_LOG_DIR")) + "/log.ini") << "[loginfo]\nlogLevel=2\n";
        MakeIdentity(Directory(), {"ec", "ec -pkeyopt ec_paramgen_curve:P-256"});
        s_strStore = "file:" + MakePemStore(Directory(), "s.pem", {"ec"});
    }

    static const TempDirectory& Directory() {
        static const TempDirectory s_directory;
        return s_directory;
    }

    static jlong Open(FakeJniEnv& env) {
        return Java_vex_jni_TAVClientJNI_Initialize(&env, nullptr, nullptr, env.MakeString(s_strStore));
    }

    static bool Signs(FakeJniEnv& env, jlong handle) {
        return Java_vex_jni_TAVClientJNI_P1SignString(&env, nullptr, handle, env.MakeString("text")) != nullptr;
    }

    inline static std::string s_strStore;
};

// The results of all natives for a handle.
struct Answers {
    std::array<jlong, 4> statuses;     // 0 or 1
    std::array<const void*, 7> texts;  // the last is the message
    jlong nError;
    jlong nFinalized;
};

Answers AskEverything(FakeJniEnv& env, jlong handle, jstring text) {
    return {{Java_vex_jni_TAVClientJNI_SetDigestAlg(&env, nullptr, handle, text),
             Java_vex_jni_TAVClientJNI_SetChooseSingleCert(&env, nullptr, handle, 1),
             Java_vex_jni_TAVClientJNI_AddFilter(&env, nullptr, handle, 1, text),
             Java_vex_jni_TAVClientJNI_ClearFilter(&env, nullptr, handle)},
            {Java_vex_jni_TAVClientJNI_P1Sign(&env, nullptr, handle, text),
             Java_vex_jni_TAVClientJNI_P1SignString(&env, nullptr, handle, text),
             Java_vex_jni_TAVClientJNI_P7Sign(&env, nullptr, handle, text, 1, 1),
             Java_vex_jni_TAVClientJNI_P7SignString(&env, nullptr, handle, text, 0, 1),
             Java_vex_jni_TAVClientJNI_GetSignCert(&env, nullptr, handle),
             Java_vex_jni_TAVClientJNI_GetCertList(&env, nullptr, handle),
             Java_vex_jni_TAVClientJNI_GetLastErrorMessage(&env, nullptr, handle)},
            Java_vex_jni_TAVClientJNI_GetLastError(&env, nullptr, handle),
            Java_vex_jni_TAVClientJNI_Finalize(&env, nullptr, handle)};
}

bool AreRefusals(const Answers& answers) {
    bool bRefused =
        answers.nError == VCTK_E_INVALID_HANDLE && answers.nFinalized == 1 && answers.texts.back() != nullptr;
    for (const jlong nStatus : answers.statuses) {
        bRefused = bRefused && nStatus == 1;
    }
    for (std::size_t i = 0; i + 1 < answers.texts.size(); ++i) {
        bRefused = bRefused && answers.texts[i] == nullptr;
    }
    return bRefused;
}

// Finalised handles that all threads use, and handles that all threads may finalise.
class Handles {
public:
    void Retire(jlong handle) {
        const std::lock_guard lock(m_mutex);
        if (m_stale.size() < 4096) {
            m_stale.push_back(handle);
        } else {
            m_stale[m_nNext++ % m_stale.size()] = handle;
        }
    }

    jlong Stale(std::uint64_t nRandom) {
        const std::lock_guard lock(m_mutex);
        return m_stale.empty() ? -1 : m_stale[nRandom % m_stale.size()];
    }

private:
    std::mutex m_mutex;
    std::vector<jlong> m_stale;
    std::size_t m_nNext = 0;
};

// The toolkit gives out multiples of 4 from this value on. Invented handles avoid those that may be in use.
jlong Invented(std::mt19937_64& random, jlong nLive) {
    static int s_nStatic = 0;
    int nOnStack = 0;
    switch (random() % 8) {
        case 0:
            return static_cast<jlong>(random() % 4096) + 1;
        case 1:
            return -static_cast<jlong>(random() % 4096) - 1;
        case 2:
            return reinterpret_cast<jlong>(&nOnStack);
        case 3:
            return reinterpret_cast<jlong>(&s_nStatic);
        case 4:
            return nLive + 1 + static_cast<jlong>(random() % 3);  // not a multiple of 4
        case 5:
            return nLive ^ static_cast<jlong>(1ULL << (40 + random() % 24));  // in the high half
        case 6:
            return (nLive << 32) | static_cast<jlong>(random() & 0xFFFFFFFFU);
        default:
            return static_cast<jlong>(random() | (1ULL << 62));
    }
}

TEST_F(HandlesTest, EveryNativeRefusesInvalidHandles) {
    const long nHandles = AmountOf("VEX_TEST_HANDLES", Scaled(20'000));
    const std::uint32_t uSeed = SeedOfRun();
    Handles handles;
    std::array<std::atomic<jlong>, 16> shared{};
    std::atomic<long> nOpened{0};
    std::atomic<long> nFinalized{0};
    std::atomic<long> nAsked{0};
    std::atomic<long> nWrong{0};

    const auto finalise = [&](FakeJniEnv& env, jlong handle) {
        if (Java_vex_jni_TAVClientJNI_Finalize(&env, nullptr, handle) == 0) {
            ++nFinalized;
            handles.Retire(handle);
        }
    };
    const auto run = [&](int nThread) {
        std::mt19937_64 random(uSeed + static_cast<std::uint32_t>(nThread));
        FakeJniEnv own;
        const jlong nLive = Open(own);
        ASSERT_NE(nLive, 0);
        ++nOpened;
        for (long nDone = 0; nDone < nHandles / kThreads;) {
            FakeJniEnv env;  // releases its objects
            jstring const text = env.MakeString("dGV4dA==");
            for (int i = 0; i < 100; ++i, ++nDone) {
                const jlong handle = random() % 2 == 0 ? handles.Stale(random()) : Invented(random, nLive);
                if (!AreRefusals(AskEverything(env, handle, text)) && ++nWrong < 10) {
                    ADD_FAILURE() << "handle " << handle << ", seed " << uSeed;
                }
                ++nAsked;
            }
            // All threads may finalise this one while others use it. Only one of them succeeds.
            std::atomic<jlong>& slot = shared[random() % shared.size()];
            const jlong nNew = Open(env);
            ASSERT_NE(nNew, 0);
            ++nOpened;
            const jlong nOld = slot.exchange(nNew);
            if (nOld != 0) {
                finalise(env, nOld);
                finalise(env, nOld);
            }
            const jlong nOthers = shared[random() % shared.size()];
            if (nOthers != 0) {
                Java_vex_jni_TAVClientJNI_AddFilter(&env, nullptr, nOthers, 1, text);
                Signs(env, nOthers);
                finalise(env, nOthers);
            }
        }
        EXPECT_TRUE(Signs(own, nLive));
        finalise(own, nLive);
        EXPECT_FALSE(Signs(own, nLive));
    };
    OnThreads(kThreads, run);
    FakeJniEnv env;
    for (const std::atomic<jlong>& slot : shared) {
        if (slot != 0) {
            finalise(env, slot);
        }
    }
    EXPECT_EQ(nWrong, 0);
    EXPECT_EQ(nFinalized, nOpened);  // each handle once
    EXPECT_GE(nAsked, nHandles);
    std::printf("%ld handles that name nothing, each against 13 natives; %ld objects opened, %ld finalised\n",
                nAsked.load(), nOpened.load(), nFinalized.load());
}

// The process forks while its threads use the table and their objects. The child's calls are answered. It makes no call
// that needs OpenSSL: a fork does not take OpenSSL's locks.
TEST_F(HandlesTest, AForkedChildFindsNoLockHeld) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "skipped: a forked child may find the sanitizer's own allocator locked";
#endif
    const long nForks = AmountOf("VEX_TEST_HANDLE_FORKS", Scaled(100));
    FakeJniEnv env;
    const jlong nShared = Open(env);
    ASSERT_NE(nShared, 0);
    std::atomic<bool> bOver{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            while (!bOver) {
                FakeJniEnv mine;
                Java_vex_jni_TAVClientJNI_ClearFilter(&mine, nullptr, nShared);
                Signs(mine, nShared);
                Java_vex_jni_TAVClientJNI_GetLastError(&mine, nullptr, nShared);
                Java_vex_jni_TAVClientJNI_Finalize(&mine, nullptr, 4);
            }
        });
    }
    long nPassed = 0;
    for (long i = 0; i < nForks; ++i) {
        const pid_t nChild = fork();
        if (nChild == 0) {
            alarm(60);
            FakeJniEnv mine;
            jstring const text = mine.MakeString("SHA384");
            const bool bPassed = AreRefusals(AskEverything(mine, 4, text)) &&
                                 Java_vex_jni_TAVClientJNI_ClearFilter(&mine, nullptr, nShared) == 0 &&
                                 Java_vex_jni_TAVClientJNI_GetLastError(&mine, nullptr, nShared) == 0 &&
                                 Java_vex_jni_TAVClientJNI_Finalize(&mine, nullptr, nShared) == 0;
            _exit(bPassed ? 0 : 1);
        }
        int nStatus = -1;
        ASSERT_EQ(waitpid(nChild, &nStatus, 0), nChild);
        EXPECT_EQ(nStatus, 0);
        nPassed += nStatus == 0 ? 1 : 0;
    }
    bOver = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(Signs(env, nShared));
    EXPECT_EQ(Java_vex_jni_TAVClientJNI_Finalize(&env, nullptr, nShared), 0);
    std::printf("%ld children of %ld answered\n", nPassed, nForks);
}

}  // namespace
