// Sessions with tokens: removal, many threads, forks and the end of the process.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "FakeClock.h"
#include "ModuleAnswer.h"
#include "Scale.h"
#include "TokenFixture.h"

namespace {

// Waits for the condition. False: it did not come true within ten seconds.
template <typename Condition>
bool ComesTrue(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

TEST_F(TokenTest, SignsAgainAfterItWasRemovedAndPutBack) {
    const ToolkitClient client(Card(";id=%01"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    const auto before = client.SignP1("text");
    ASSERT_TRUE(before);
    const int cLogins = Shim().cLogins;
    for (int i = 0; i < 2; ++i) {
        Shim().pfnLoseSessions();
        Shim().fRemoved = true;
        for (int n = 0; n < 3; ++n) {
            EXPECT_FALSE(client.SignP1("text"));
            EXPECT_EQ(client.LastError(), VCTK_E_TOKEN_REMOVED) << client.Message();
            EXPECT_FALSE(client.SignP7("text", 0, 1, 1));
            EXPECT_EQ(client.LastError(), VCTK_E_TOKEN_REMOVED) << client.Message();
        }
        EXPECT_FALSE(ToolkitClient(Card()).IsOpen());
        EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_TOKEN_NOT_FOUND);
        EXPECT_EQ(Names(client), "rsacert ");

        Shim().fRemoved = false;
        EXPECT_EQ(client.SignP1("text"), before) << client.Message();
        EXPECT_TRUE(client.SignP7("text", 0, 1, 1)) << client.Message();
        EXPECT_EQ(Shim().cLogins, cLogins + i + 1);
        EXPECT_TRUE(ToolkitClient(Card()).IsOpen());
    }
}

TEST_F(TokenTest, LostSessionsAreReplaced) {
    const ToolkitClient client(Card(";id=%00%02"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(client.SignP1("text")) << client.Message();
        Shim().pfnLoseSessions();
    }
    EXPECT_TRUE(client.SignP7("text", 0, 0, 0)) << client.Message();
}

TEST_F(TokenTest, SixteenThreadsSign) {
    const ToolkitClient shared(Card(";id=%01"));
    ASSERT_TRUE(shared.IsOpen()) << ErrorMessage(nullptr);
    ASSERT_EQ(VCTK_CallQueueEnable(shared.Handle(), 0, 0), 0);
    constexpr size_t kThreads = 16;
    std::array<std::string, kThreads> expected;
    for (size_t i = 0; i < kThreads; ++i) {
        expected[i] = shared.SignP1("text " + std::to_string(i)).value();
    }
    const int cLogins = Shim().cLogins;
    const int nRounds = std::max(Scaled(100), 5);
    std::atomic<int> cWrong{0};
    {
        std::vector<std::jthread> threads;
        for (size_t i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                const ToolkitClient own(Card(";id=%01"));
                for (int n = 0; n < nRounds; ++n) {
                    const ToolkitClient& client = n % 2 == 0 ? shared : own;
                    cWrong += client.SignP1("text " + std::to_string(i)) == expected[i] ? 0 : 1;
                }
            });
        }
    }
    EXPECT_EQ(cWrong, 0);
    EXPECT_EQ(Shim().cLogins, cLogins);
    EXPECT_LE(Shim().cSessions, 17 * 2) << "sessions were not used again";
}

TEST_F(TokenTest, SixteenThreadsSignAgainAfterARemoval) {
    const ToolkitClient client(Card(";id=%01"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    ASSERT_EQ(VCTK_CallQueueEnable(client.Handle(), 0, 0), 0);
    const std::string strExpected = client.SignP1("text").value();
    std::atomic<bool> fBack{false};
    std::atomic<int> cWrong{0};
    std::atomic<int> cFailed{0};
    std::atomic<int> cAfter{0};
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 16; ++i) {
            threads.emplace_back([&] {
                while (cAfter < 16) {
                    const bool fWasBack = fBack;
                    const auto signature = client.SignP1("text");
                    if (signature) {
                        cWrong += *signature == strExpected ? 0 : 1;
                        cAfter += fWasBack ? 1 : 0;
                    } else {
                        cWrong += client.LastError() == VCTK_E_TOKEN_REMOVED && !fWasBack ? 0 : 1;
                        ++cFailed;
                    }
                }
            });
        }
        Shim().fRemoved = true;
        while (cFailed < 16) {
            std::this_thread::yield();
        }
        Shim().pfnLoseSessions();
        Shim().fRemoved = false;
        fBack = true;
    }
    EXPECT_EQ(cWrong, 0);
}

TEST_F(TokenTest, ATokenWithOneSessionServesAllThreads) {
    ExpectChildPasses([] {
        Shim().nMostSessions = 1;
        const ToolkitClient client(Card(";id=%01"));
        ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
        ASSERT_EQ(VCTK_CallQueueEnable(client.Handle(), 0, 0), 0);
        std::atomic<int> cSigned{0};
        {
            std::vector<std::jthread> threads;
            for (int i = 0; i < 8; ++i) {
                threads.emplace_back([&] { cSigned += client.SignP1("text") ? 1 : 0; });
            }
        }
        EXPECT_EQ(cSigned, 8);
        EXPECT_EQ(Shim().cSessions, 1);
    });
}

// A refused signature can leave the session in the middle of an operation.
TEST_F(TokenTest, ASessionInWhichSigningFailedIsNotUsedAgain) {
    for (const int nMostSessions : {1, 2, 1000}) {
        const ChildEnd end = RunChild([&] {
            Shim().nMostSessions = nMostSessions;
            const ToolkitClient client(Card(";id=%01"));
            ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
            for (int i = 0; i < 3; ++i) {
                ASSERT_TRUE(client.SignP1("text")) << client.Message();
                Shim().fSigningFails = true;
                EXPECT_FALSE(client.SignP1("text"));
                EXPECT_EQ(client.LastError(), VCTK_E_TOKEN_FAILED) << client.Message();
                Shim().fSigningFails = false;
            }
            EXPECT_TRUE(client.SignP1("text")) << client.Message();
        });
        EXPECT_TRUE(end.Passed()) << nMostSessions;
    }
}

// Two sessions sign, and one keeps the login. Two threads sign at once, and a third one waits, before and after a
// signature that fails.
TEST_F(TokenTest, AFailedSignatureCostsNoSession) {
    using Open = ModuleAnswer<&CK_FUNCTION_LIST::C_OpenSession>;
    using Sign = ModuleAnswer<&CK_FUNCTION_LIST::C_Sign>;
    ExpectChildPasses([] {
        Shim().nMostSessions = 3;
        const ToolkitClient client(Card(";id=%01"));
        ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
        ASSERT_EQ(VCTK_CallQueueEnable(client.Handle(), 0, 0), 0);
        for (int nRound = 0; nRound < 3; ++nRound) {
            std::atomic<int> cSigning{0};
            std::atomic<int> cRefused{0};
            std::atomic<int> cTogether{0};
            const Open open([&](auto... arguments) {
                const CK_RV rv = Open::Real(arguments...);
                cRefused += rv == CKR_SESSION_COUNT ? 1 : 0;
                return rv;
            });
            const Sign sign([&](auto... arguments) {
                ++cSigning;
                cTogether += ComesTrue([&] { return cSigning >= 2 && cRefused > 0; }) ? 1 : 0;
                return Sign::Real(arguments...);
            });
            {
                std::vector<std::jthread> threads;
                for (int i = 0; i < 3; ++i) {
                    threads.emplace_back([&] { EXPECT_TRUE(client.SignP1("text")) << client.Message(); });
                }
            }
            EXPECT_EQ(cTogether, 3) << nRound;
            EXPECT_EQ(Shim().cSessions, 3);
            Shim().fSigningFails = true;
            cSigning = 2;
            EXPECT_FALSE(client.SignP1("text"));
            EXPECT_EQ(Shim().cSessions, 2);
            Shim().fSigningFails = false;
        }
    });
}

// With its only session, a thread whose signature fails ends the login of all. The others notice nothing of it.
TEST_F(TokenTest, OnlyTheThreadWhoseSignatureFailsGetsAnErrorFromATokenWithOneSession) {
    using Sign = ModuleAnswer<&CK_FUNCTION_LIST::C_Sign>;
    ExpectChildPasses([] {
        Shim().nMostSessions = 1;
        const ToolkitClient first(Card(";id=%01"));
        ASSERT_TRUE(first.IsOpen()) << ErrorMessage(nullptr);
        const int nRounds = std::max(Scaled(50), 5);
        std::atomic<int> cSigning{0};
        std::atomic<int> cFailed{0};
        std::atomic<int> cErrors{0};
        const Sign sign([&](auto... arguments) -> CK_RV {
            if (++cSigning % 3 == 0) {
                ++cFailed;
                return CKR_FUNCTION_FAILED;
            }
            return Sign::Real(arguments...);
        });
        {
            std::vector<std::jthread> threads;
            for (int i = 0; i < 8; ++i) {
                threads.emplace_back([&] {
                    const ToolkitClient own(Card(";id=%01"));
                    ASSERT_TRUE(own.IsOpen()) << ErrorMessage(nullptr);
                    for (int n = 0; n < nRounds; ++n) {
                        if (!own.SignP1("text")) {
                            ++cErrors;
                            EXPECT_NE(own.Message().find("C_Sign: CKR_FUNCTION_FAILED"), std::string::npos)
                                << own.Message();
                        }
                    }
                });
            }
        }
        EXPECT_EQ(cSigning, 8 * nRounds);
        EXPECT_EQ(cErrors, cFailed);
    });
}

TEST_F(TokenTest, TheHostMayHaveInitialisedTheModule) {
    ExpectChildPasses([] {
        ASSERT_EQ(TestTokens::InitialiseModule(), 0U);
        const ToolkitClient client(Card(";id=%01"));
        ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
        EXPECT_TRUE(client.SignP1("text")) << client.Message();
    });
}

TEST_F(TokenTest, AModuleThatCannotLockIsCalledByOneThreadAtATime) {
    ExpectChildPasses([] {
        Shim().fCannotLock = true;
        const ToolkitClient client(Card(";id=%01"));
        ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
        ASSERT_EQ(VCTK_CallQueueEnable(client.Handle(), 0, 0), 0);
        const auto expected = client.SignP1("text");
        ASSERT_TRUE(expected) << client.Message();
        Shim().cMostAtOnce = 0;
        std::atomic<int> cWrong{0};
        {
            std::vector<std::jthread> threads;
            for (int i = 0; i < 8; ++i) {
                threads.emplace_back([&] {
                    for (int n = 0; n < 10; ++n) {
                        cWrong += client.SignP1("text") == expected ? 0 : 1;
                    }
                });
            }
        }
        EXPECT_EQ(cWrong, 0);
        EXPECT_EQ(Shim().cMostAtOnce, 1);
    });
}

TEST_F(TokenTest, AForkedChildOpensItsOwnSessions) {
    const ToolkitClient inherited(Card(";id=%01"));
    ASSERT_TRUE(inherited.IsOpen()) << ErrorMessage(nullptr);
    const auto expected = inherited.SignP1("text");
    ASSERT_TRUE(expected);
    ExpectChildPasses([&] {
        const int cInitialize = Shim().cInitialize;
        const int cSignatures = Shim().cSignatures;
        EXPECT_FALSE(inherited.SignP1("text"));
        EXPECT_EQ(inherited.LastError(), VCTK_E_TOKEN_FAILED);
        EXPECT_NE(inherited.Message().find("fork"), std::string::npos) << inherited.Message();
        EXPECT_EQ(Shim().cSignatures, cSignatures);

        const ToolkitClient own(Card(";id=%01"));
        ASSERT_TRUE(own.IsOpen()) << ErrorMessage(nullptr);
        EXPECT_EQ(own.SignP1("text"), expected) << own.Message();
        EXPECT_EQ(Shim().cInitialize, cInitialize + 1);
    });
    EXPECT_EQ(inherited.SignP1("text"), expected) << inherited.Message();
}

TEST_F(TokenTest, AForkedChildReleasesWhatItInheritedWithoutTheModule) {
    const ToolkitClient inherited(Card(";id=%01"));
    ASSERT_TRUE(inherited.IsOpen()) << ErrorMessage(nullptr);
    const auto expected = inherited.SignP1("text");
    ASSERT_TRUE(expected);
    ExpectChildPasses([&] {
        const int cSessions = Shim().cSessions;
        EXPECT_EQ(VCTK_Finalize(inherited.Handle()), 0);
        EXPECT_EQ(Shim().cSessions, cSessions);
    });
    EXPECT_EQ(inherited.SignP1("text"), expected) << inherited.Message();
}

// Exit handlers that were registered before the module's run after the module has ended.
TEST_F(TokenTest, TheModuleIsNotCalledAfterItsEnd) {
    ExpectChildPasses(
        [] {
            static ToolkitClient* s_pClient = nullptr;
            std::atexit([] {
                const int cSignatures = Shim().cSignatures;
                const bool fSigned = s_pClient->SignP1("text").has_value();
                const bool fRefused = !fSigned && s_pClient->LastError() == VCTK_E_TOKEN_FAILED;
                if (!fRefused || Shim().cSignatures != cSignatures) {
                    _exit(17);
                }
            });
            s_pClient = new ToolkitClient(Card(";id=%01"));
            ASSERT_TRUE(s_pClient->SignP1("text")) << ErrorMessage(nullptr);
        },
        Exit::kByReturn);
}

// Threads still sign while all exit handlers run: of this program, of OpenSSL, of the module.
TEST_F(TokenTest, TheProcessEndsWhileThreadsSign) {
    for (int i = 0; i < 3; ++i) {
        const ChildEnd end = RunChild(
            [] {
                constexpr int kThreads = 4;
                // They run until the process ends.
                auto& client = *new ToolkitClient(Card(";id=%01"));
                auto& started = *new std::latch(kThreads);
                ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
                ASSERT_EQ(VCTK_CallQueueEnable(client.Handle(), 0, 0), 0);
                for (int n = 0; n < kThreads; ++n) {
                    std::thread([&] {
                        client.SignP1("text");
                        started.count_down();
                        for (;;) {
                            client.SignP1("text");
                            client.SignP7("text", 0, 0, 1);
                        }
                    }).detach();
                }
                started.wait();
            },
            Exit::kByReturn);
        EXPECT_TRUE(end.Passed()) << end.nStatus;
        EXPECT_LT(end.dSeconds, 4.0);
    }
}

#if defined(VEX_TEST_FAKE_CLOCK)
// The end of the process waits five seconds for the call, whatever the wall clock says. A lock that waits until a time
// of the wall clock would wait for the years by which this one is fast.
TEST_F(TokenTest, TheProcessEndsWhileATokenHangsAndTheClockJumps) {
    const TempDirectory directory;
    const ChildEnd end = RunChild(
        [&] {
            setenv("VEX_TEST_CLOCK_FILE", directory.Path("clock").c_str(), 1);
            const ToolkitClient client(Card(";id=%01"));
            ASSERT_TRUE(client.SignP1("text")) << ErrorMessage(nullptr);
            Shim().fSigningHangs = true;
            const int cSignatures = Shim().cSignatures;
            std::thread([hObject = client.Handle()] { VCTK_P1Sign(hObject, "text", 0); }).detach();
            while (Shim().cSignatures == cSignatures) {
                std::this_thread::yield();
            }
            MoveFakeTime(std::time_t{10} * 365 * 24 * 3600);
            std::exit(testing::Test::HasFailure() ? 1 : 0);  // the object is in use
        },
        Exit::kByReturn);
    EXPECT_TRUE(end.Passed()) << "signal " << end.nSignal;
}
#endif

}  // namespace
