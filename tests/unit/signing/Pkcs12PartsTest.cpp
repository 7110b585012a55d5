// PKCS #12 files whose parts are decrypted by two threads: keys in a plain part, certificates in an encrypted one.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include "Pkcs12Bytes.h"
#include "Row.h"
#include "Secret.h"
#include "SelfSigned.h"
#include "SystemCalls.h"
#include "signing/Failure.h"
#include "signing/Store.h"

namespace {

// The threads that were asked for on this thread.
struct Threads {
    int nStarted = 0;
    int nWithHostsSignals = 0;
    int nRefusal = 0;  // an errno: there is none
};

thread_local Threads t_threads;

bool IsBlocked(int nSignal) {
    sigset_t now;
    pthread_sigmask(SIG_SETMASK, nullptr, &now);
    return sigismember(&now, nSignal) == 1;
}

}  // namespace

// Before that of libc.
extern "C" int pthread_create(pthread_t* pThread, const pthread_attr_t* pAttributes, void* (*pFunction)(void*),
                              void* pArgument) noexcept {
    static auto* const s_pNext = system_calls::Next(pthread_create, "pthread_create");
    ++t_threads.nStarted;
    t_threads.nWithHostsSignals += IsBlocked(SIGTERM) && IsBlocked(SIGUSR1) ? 0 : 1;
    return t_threads.nRefusal != 0 ? t_threads.nRefusal : s_pNext(pThread, pAttributes, pFunction, pArgument);
}

namespace vextk {
namespace {

constexpr const char* kPin = "1234";
constexpr const char* kOtherPin = "4321";

enum class Part { kPlain, kEncrypted, kDamaged };

// A file with these parts, each of which has a key, which is encrypted for itself in any case, and its certificate.
std::string FileOf(const std::vector<Part>& parts, bool bMac) {
    STACK_OF(PKCS7)* pSafes = nullptr;
    for (const Part part : parts) {
        const SelfSigned pair;
        STACK_OF(PKCS12_SAFEBAG)* pBags = nullptr;
        PKCS12_add_key(&pBags, pair.key.get(), 0, 1, NID_aes_256_cbc, kPin);
        PKCS12_add_cert(&pBags, pair.certificate.get());
        PKCS12_add_safe(&pSafes, pBags, part == Part::kPlain ? -1 : NID_aes_256_cbc, 1, kPin);
        sk_PKCS12_SAFEBAG_pop_free(pBags, PKCS12_SAFEBAG_free);
        if (part == Part::kDamaged) {
            CutEncryption(*sk_PKCS7_value(pSafes, sk_PKCS7_num(pSafes) - 1));
        }
    }
    return BytesOf(pSafes, bMac ? kPin : nullptr);
}

struct Case : Row {
    std::vector<Part> parts;
    const char* pszPin;
    int nThreads;
    VCTKError nError = VCTK_OK;
    bool bMac = true;
};

class Pkcs12Parts : public testing::TestWithParam<Case> {
protected:
    // Whether or not there is a thread.
    static void ExpectOutcome() {
        const std::string strFile = FileOf(GetParam().parts, GetParam().bMac);
        const SecretText pin = Secret(GetParam().pszPin);
        t_threads.nStarted = 0;
        t_threads.nWithHostsSignals = 0;
        try {
            const Identities identities = ReadIdentities(strFile, &pin);
            EXPECT_EQ(identities.size(), GetParam().parts.size());
            for (const IdentityPtr& identity : identities) {
                EXPECT_NE(identity->Key(), nullptr);
            }
            EXPECT_EQ(GetParam().nError, VCTK_OK);
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.Number(), GetParam().nError) << failure.Detail();
        }
        EXPECT_EQ(t_threads.nStarted, GetParam().nThreads);
        EXPECT_EQ(t_threads.nWithHostsSignals, 0);
        EXPECT_FALSE(IsBlocked(SIGTERM));
        EXPECT_EQ(ERR_peek_error(), 0U);
    }
};

TEST_P(Pkcs12Parts, AreReadWithASecondThread) {
    ExpectOutcome();
}

TEST_P(Pkcs12Parts, AreReadWithoutOne) {
    // The process has too many, or a filter of system calls allows it none.
    for (const int nRefusal : {EAGAIN, EPERM}) {
        t_threads.nRefusal = nRefusal;
        ExpectOutcome();
    }
    t_threads.nRefusal = 0;
}

constexpr Part kPlain = Part::kPlain;
constexpr Part kEncrypted = Part::kEncrypted;

INSTANTIATE_TEST_SUITE_P(
    , Pkcs12Parts,
    testing::Values(Case{"Plain", {kPlain, kPlain}, kPin, 0}, Case{"Encrypted", {kEncrypted, kEncrypted}, kPin, 0},
                    Case{"PlainFirst", {kPlain, kEncrypted}, kPin, 1},
                    Case{"EncryptedFirst", {kEncrypted, kPlain}, kPin, 1},
                    Case{"Many", {kEncrypted, kPlain, kEncrypted, kPlain, kEncrypted}, kPin, 1},
                    Case{"WrongPin", {kEncrypted, kPlain}, kOtherPin, 0, VCTK_E_PIN_WRONG},
                    Case{"Damaged", {kPlain, Part::kDamaged}, kPin, 1, VCTK_E_STORE_FORMAT},
                    Case{"DamagedBeforeAWholeOne", {Part::kDamaged, kPlain, kEncrypted}, kPin, 1, VCTK_E_STORE_FORMAT},
                    Case{"WithoutMac", {kEncrypted, kPlain}, kPin, 1, VCTK_OK, false},
                    Case{"WrongPinWithoutMac", {kEncrypted, kPlain}, kOtherPin, 1, VCTK_E_PIN_WRONG, false}),
    RowName);

}  // namespace
}  // namespace vextk
