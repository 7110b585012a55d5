// The settings and counters of the tests' PKCS #11 module, which forwards to a real one. The environment variable
// VEX_TEST_PKCS11_MODULE contains the real module's path. Keys with the label "decryptkey" may not sign. If
// VEX_TEST_PKCS11_CALLS names a file, a line is appended to it for each call of C_OpenSession, C_CloseSession, C_Login,
// C_Logout and C_Sign, for programs that cannot read the counters.
#pragma once

#include <array>
#include <atomic>

struct Pkcs11Shim {
    // The CK_FUNCTION_LIST that the toolkit uses since it opened the module. ModuleAnswer.h changes it.
    void* pFunctions = nullptr;

    // The token is removed: it is not listed, its sessions have ended, and every call on it fails.
    std::atomic<bool> fRemoved{false};
    // Sessions that may be open at once, by this module's count.
    std::atomic<int> nMostSessions{1000000};

    // All PINs were changed: each has an additional "x" at its end.
    std::atomic<bool> fPinChanged{false};

    // The user's PIN was tried too often.
    std::atomic<bool> fPinLocked{false};
    // The reader has a PIN pad. On a login without a PIN, "4711" is entered there.
    std::atomic<bool> fPinPad{false};

    // The module does not allow several threads at once, and says so when it is initialised.
    std::atomic<bool> fCannotLock{false};

    // What C_Initialize returns; 0: what the real module does.
    std::atomic<unsigned long> nNotInitialised{0};
    // What C_OpenSession returns in place of a session; 0: it opens one.
    std::atomic<unsigned long> nNoSession{0};

    // Signing fails in the middle of the operation.
    std::atomic<bool> fSigningFails{false};
    // Signing never returns, as with a token whose driver hangs.
    std::atomic<bool> fSigningHangs{false};

    // Mechanisms that the token does not have, though the real one has them.
    std::array<std::atomic<unsigned long>, 2> nMissing{kNoMechanism, kNoMechanism};
    static constexpr unsigned long kNoMechanism = ~0UL;

    // The certificates are not DER.
    std::atomic<bool> fCertificatesDamaged{false};

    std::atomic<int> cLogins{0};         // calls of C_Login for the user
    std::atomic<int> cContextLogins{0};  // and for a single operation
    std::atomic<int> cInitialize{0};
    std::atomic<int> cSignatures{0};
    std::atomic<unsigned long> cbSigned{0};    // of the last call
    std::atomic<unsigned long> nMechanism{0};  // of the last call of C_SignInit
    std::atomic<int> cSessions{0};
    std::atomic<int> cPads{0};  // logins by the pad

    // The greatest number of calls at once in the signing and session functions, since it was set to 0.
    std::atomic<int> cMostAtOnce{0};

    // Ends all sessions of all tokens without telling their users.
    void (*pfnLoseSessions)() = nullptr;
};

// Exported by the module.
extern "C" Pkcs11Shim* VexTestPkcs11Shim();
extern "C" unsigned long VexTestInitialiseModule();
