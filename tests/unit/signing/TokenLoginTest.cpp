// Logging in to tokens: PINs, how often they are tried, and who shares a login.
#include <gtest/gtest.h>
#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "Scale.h"
#include "TokenFixture.h"

namespace {

TEST_F(TokenTest, TakesThePinFromAFile) {
    s_pTokens->Directory().Write("pin", std::string(kPin) + "\n");
    const ToolkitClient client(Uri("token=Card?pin-source=file:" + s_pTokens->Directory().Path("pin")));
    EXPECT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
}

// In a child process, which has not logged in yet.
TEST_F(TokenTest, ManyObjectsShareOneLogin) {
    ExpectChildPasses([] {
        const int cLogins = Shim().cLogins;
        const ToolkitClient one(Card());
        const int cSessions = Shim().cSessions;
        for (int i = 0; i < 5; ++i) {
            const ToolkitClient two(Card(";id=%01"));
            const ToolkitClient three("handle:" + std::to_string(reinterpret_cast<std::uintptr_t>(two.Handle())));
            ASSERT_TRUE(one.IsOpen() && two.IsOpen() && three.IsOpen()) << ErrorMessage(nullptr);
            EXPECT_TRUE(one.SignP1("text"));
            EXPECT_TRUE(two.SignP7("text", 0, 0, 0));
            EXPECT_TRUE(three.SignP1("text"));
        }
        EXPECT_EQ(Shim().cLogins, cLogins + 1);
        EXPECT_EQ(Shim().cSessions, cSessions) << "the sessions of one connection are used again";
    });
}

TEST_F(TokenTest, ThreadsThatOpenItAtOnceShareOneLogin) {
    ExpectChildPasses([] {
        const int cLogins = Shim().cLogins;
        std::atomic<int> cOpen{0};
        std::latch start(16);
        {
            std::latch end(16);
            std::vector<std::jthread> threads;
            for (int i = 0; i < 16; ++i) {
                threads.emplace_back([&] {
                    start.arrive_and_wait();
                    const ToolkitClient client(Card());
                    cOpen += client.IsOpen() && client.SignP1("text") ? 1 : 0;
                    end.arrive_and_wait();
                });
            }
        }
        EXPECT_EQ(cOpen, 16);
        EXPECT_EQ(Shim().cLogins, cLogins + 1);
    });
}

// Whether the process is logged in to any token, as the real module sees it.
bool IsLoggedIn() {
    void* const pLibrary = dlopen(VEX_TEST_SOFTHSM, RTLD_NOW | RTLD_LOCAL);
    const auto getFunctions = reinterpret_cast<CK_C_GetFunctionList>(dlsym(pLibrary, "C_GetFunctionList"));
    CK_FUNCTION_LIST* p = nullptr;
    EXPECT_EQ(getFunctions(&p), CKR_OK);
    std::array<CK_SLOT_ID, 32> slots{};
    CK_ULONG cSlots = slots.size();
    EXPECT_EQ(p->C_GetSlotList(CK_TRUE, slots.data(), &cSlots), CKR_OK);
    bool bLoggedIn = false;
    for (CK_ULONG i = 0; i < cSlots; ++i) {
        CK_SESSION_HANDLE hSession = 0;
        CK_SESSION_INFO info{};
        if (p->C_OpenSession(slots[i], CKF_SERIAL_SESSION, nullptr, nullptr, &hSession) == CKR_TOKEN_NOT_RECOGNIZED) {
            continue;  // the place for a new token
        }
        EXPECT_EQ(p->C_GetSessionInfo(hSession, &info), CKR_OK);
        bLoggedIn = bLoggedIn || info.state == CKS_RO_USER_FUNCTIONS;
        EXPECT_EQ(p->C_CloseSession(hSession), CKR_OK);
    }
    return bLoggedIn;
}

TEST_F(TokenTest, TheLoginEndsWithTheLastObject) {
    ExpectChildPasses([] {
        const int cLogins = Shim().cLogins;
        for (int i = 1; i <= 3; ++i) {
            {
                const ToolkitClient one(Card());
                {
                    const ToolkitClient two(Card(";id=%01"));
                    EXPECT_TRUE(two.SignP1("text")) << two.Message();
                }
                EXPECT_TRUE(IsLoggedIn());
                EXPECT_TRUE(one.SignP1("text")) << one.Message();
                EXPECT_EQ(Shim().cLogins, cLogins + i);
            }
            EXPECT_EQ(Shim().cSessions, 0);
            EXPECT_FALSE(IsLoggedIn());
            EXPECT_FALSE(ToolkitClient(Uri("token=Card")).IsOpen());
            EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_PIN_REQUIRED);
            EXPECT_FALSE(IsLoggedIn()) << "an attempt that fails leaves nothing behind";
        }
    });
}

TEST_F(TokenTest, TenThousandDocumentsNeedOneLogin) {
    ExpectChildPasses([] {
        const int cLogins = Shim().cLogins;
        const int cDocuments = std::max(Scaled(10000), 100);
        std::atomic<int> cLeft{cDocuments};
        std::atomic<int> cSigned{0};
        const ToolkitClient first(Card(";id=%00%02"));
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&, strUri = i % 2 == 0 ? Card(";id=%00%02")
                                                         : "handle:" + std::to_string(reinterpret_cast<std::uintptr_t>(
                                                                           first.Handle()))] {
                const ToolkitClient mine(strUri);
                for (int n = cLeft--; n > 0; n = cLeft--) {
                    cSigned += mine.SignP1("document " + std::to_string(n)) ? 1 : 0;
                }
            });
        }
        threads.clear();
        EXPECT_EQ(cSigned, cDocuments);
        EXPECT_EQ(Shim().cLogins, cLogins + 1);
    });
}

// A wrong PIN is wrong even at the moment in which the last object logs out.
TEST_F(TokenTest, LoginsAndLogoutsOfManyThreads) {
    ExpectChildPasses([] {
        std::atomic<int> cWrong{0};
        const int nRounds = std::max(Scaled(40), 5);
        std::vector<std::jthread> threads;
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([&] {
                for (int n = 0; n < nRounds; ++n) {
                    const ToolkitClient client(Card(";id=%00%02"));
                    cWrong += client.SignP1("text") ? 0 : 1;
                }
            });
        }
        threads.emplace_back([&] {
            for (int n = 0; n < nRounds; ++n) {
                const ToolkitClient client(Uri("token=Card?pin-value=wrong" + std::to_string(n)));
                cWrong += !client.IsOpen() && VCTK_GetLastError(nullptr) == VCTK_E_PIN_WRONG ? 0 : 1;
            }
        });
        threads.clear();
        EXPECT_EQ(cWrong, 0);
        EXPECT_EQ(Shim().cSessions, 0);
        EXPECT_FALSE(IsLoggedIn());
    });
}

TEST_F(TokenTest, ThreadsTryAWrongPinOnce) {
    ExpectChildPasses([] {
        const int cLogins = Shim().cLogins;
        std::vector<std::jthread> threads;
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([&] {
                EXPECT_FALSE(ToolkitClient(Uri("token=Card?pin-value=8888")).IsOpen());
                EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_PIN_WRONG);
            });
        }
        threads.clear();
        EXPECT_EQ(Shim().cLogins, cLogins + 1);
    });
}

TEST_F(TokenTest, AWrongPinIsTriedOnce) {
    ExpectChildPasses([] {
        const int cLogins = Shim().cLogins;
        const auto open = [](const char* pszPin) {
            const ToolkitClient client(Uri("token=Other%20card?pin-value=" + std::string(pszPin)));
            return client.IsOpen() ? VCTK_OK : VCTK_GetLastError(nullptr);
        };
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(open("1111"), VCTK_E_PIN_WRONG);
        }
        EXPECT_EQ(Shim().cLogins, cLogins + 1);
        EXPECT_EQ(ErrorMessage(nullptr).find("1111"), std::string::npos);
        EXPECT_EQ(open("2222"), VCTK_E_PIN_WRONG);
        EXPECT_EQ(Shim().cLogins, cLogins + 2);
        // The PIN of another token: only this one refuses it.
        EXPECT_EQ(open(kPin), VCTK_E_PIN_WRONG);
        EXPECT_EQ(open(kOtherPin), VCTK_OK);
        EXPECT_EQ(Shim().cLogins, cLogins + 4);
        EXPECT_EQ(open("1111"), VCTK_E_PIN_WRONG);
        EXPECT_EQ(open(kOtherPin), VCTK_OK);
        EXPECT_TRUE(ToolkitClient(Card()).IsOpen());
    });
}

// Only the owner's PUK unlocks it, so the error must differ from that of a wrong PIN.
TEST_F(TokenTest, ReportsALockedPin) {
    ExpectChildPasses([] {
        Shim().fPinLocked = true;
        EXPECT_FALSE(ToolkitClient(Card()).IsOpen());
        EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_PIN_LOCKED);
        EXPECT_NE(ErrorMessage(nullptr).find("Card"), std::string::npos) << ErrorMessage(nullptr);
        Shim().fPinLocked = false;
        EXPECT_TRUE(ToolkitClient(Card()).IsOpen()) << ErrorMessage(nullptr);
    });
}

TEST_F(TokenTest, APinPadIsAskedInPlaceOfTheCaller) {
    ExpectChildPasses([] {
        Shim().fPinPad = true;
        const int cPads = Shim().cPads;
        const ToolkitClient client(Uri("token=Card;id=%01"));
        ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
        EXPECT_TRUE(client.SignP1("text")) << client.Message();
        // Later objects find the token logged in.
        EXPECT_TRUE(ToolkitClient(Uri("token=Card;id=%01")).IsOpen()) << ErrorMessage(nullptr);
        EXPECT_EQ(Shim().cPads, cPads + 1);
        const ToolkitClient eachTime(Uri("token=Card;id=%03"));
        ASSERT_TRUE(eachTime.IsOpen()) << ErrorMessage(nullptr);
        EXPECT_TRUE(eachTime.SignP1("text")) << eachTime.Message();
        EXPECT_TRUE(eachTime.SignP1("text")) << eachTime.Message();
        EXPECT_EQ(Shim().cPads, cPads + 3);
        // A later object may give the PIN, and the next one none.
        EXPECT_TRUE(ToolkitClient(Card(";id=%01")).IsOpen()) << ErrorMessage(nullptr);
        EXPECT_TRUE(ToolkitClient(Uri("token=Card;id=%01")).IsOpen()) << ErrorMessage(nullptr);
        EXPECT_TRUE(client.SignP1("text")) << client.Message();
    });
}

TEST_F(TokenTest, AWrongPinDoesNotDisturbOpenObjects) {
    const ToolkitClient client(Card(";id=%01"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    const int cLogins = Shim().cLogins;
    EXPECT_FALSE(ToolkitClient(Uri("token=Card?pin-value=9999")).IsOpen());
    EXPECT_EQ(VCTK_GetLastError(nullptr), VCTK_E_PIN_WRONG);
    EXPECT_EQ(Shim().cLogins, cLogins);
    EXPECT_TRUE(client.SignP1("text")) << client.Message();
    EXPECT_EQ(Shim().cLogins, cLogins);
}

TEST_F(TokenTest, AChangedPinIsTriedOnceMoreAndTheNewOneHelpsAllObjects) {
    const ToolkitClient client(Uri("token=Changing?pin-value=1111"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    Shim().fPinChanged = true;
    Shim().pfnLoseSessions();
    const int cLogins = Shim().cLogins;
    for (int i = 0; i < 5; ++i) {
        EXPECT_FALSE(client.SignP1("text"));
        EXPECT_EQ(client.LastError(), VCTK_E_PIN_WRONG) << client.Message();
    }
    EXPECT_EQ(Shim().cLogins, cLogins + 1);
    EXPECT_TRUE(ToolkitClient(Uri("token=Changing?pin-value=1111x")).IsOpen()) << ErrorMessage(nullptr);
    EXPECT_TRUE(client.SignP1("text")) << client.Message();
    EXPECT_EQ(Shim().cLogins, cLogins + 2);
}

// The token was pulled out, and nobody has logged in since it was put back.
TEST_F(TokenTest, OpenObjectsKeepTheirPinWhileTheTokenIsAway) {
    const ToolkitClient client(Card(";id=%01"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    Shim().pfnLoseSessions();
    Shim().fRemoved = true;
    EXPECT_FALSE(client.SignP1("text"));
    EXPECT_EQ(client.LastError(), VCTK_E_TOKEN_REMOVED) << client.Message();
    Shim().fRemoved = false;

    const int cLogins = Shim().cLogins;
    for (const auto& [pszPin, nError] :
         {std::pair{"?pin-value=0000", VCTK_E_PIN_WRONG}, {"", VCTK_E_PIN_REQUIRED}, {"?pin-value=4711", VCTK_OK}}) {
        const bool bOpen = ToolkitClient(Uri(std::string("token=Card") + pszPin)).IsOpen();
        EXPECT_EQ(bOpen ? VCTK_OK : VCTK_GetLastError(nullptr), nError) << pszPin << ": " << ErrorMessage(nullptr);
    }
    EXPECT_EQ(Shim().cLogins, cLogins + 1);
    EXPECT_TRUE(client.SignP1("text")) << client.Message();
    EXPECT_EQ(Shim().cLogins, cLogins + 1);
}

TEST_F(TokenTest, AKeyThatNeedsThePinEachTimeGetsIt) {
    const ToolkitClient client(Card(";id=%03"));
    ASSERT_TRUE(client.IsOpen()) << ErrorMessage(nullptr);
    const int cContextLogins = Shim().cContextLogins;
    EXPECT_TRUE(client.SignP1("text")) << client.Message();
    EXPECT_TRUE(client.SignP1("text")) << client.Message();
    EXPECT_EQ(Shim().cContextLogins, cContextLogins + 2);
}

}  // namespace
