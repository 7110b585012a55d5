// What the PKCS #11 module of the tests, which forwards to a real one, can be told and asked. The real module's path is
// in the environment variable VEX_TEST_PKCS11_MODULE. Keys with the label "decryptkey" may not sign.
#pragma once

#include <atomic>

struct Pkcs11Shim {
    // The token is away: it is not listed, its sessions are gone, and every call on it fails.
    std::atomic<bool> fRemoved{false};
    // Sessions that may be open at once, by this module's count.
    std::atomic<int> nMostSessions{1000000};

    // PINs have been changed: they have an "x" more at their end.
    std::atomic<bool> fPinChanged{false};

    // The user's PIN has been tried too often.
    std::atomic<bool> fPinLocked{false};
    // The reader has a pad for the PIN, on which "4711" is entered when a login comes without one.
    std::atomic<bool> fPinPad{false};

    // The module cannot be used by several threads at once, and says so when it is initialised.
    std::atomic<bool> fCannotLock{false};

    // Signing fails in the middle of the operation.
    std::atomic<bool> fSigningFails{false};

    // The certificates are no DER.
    std::atomic<bool> fCertificatesDamaged{false};

    std::atomic<int> cLogins{0};         // calls of C_Login for the user
    std::atomic<int> cContextLogins{0};  // and for a single operation
    std::atomic<int> cInitialize{0};
    std::atomic<int> cSignatures{0};
    std::atomic<unsigned long> cbSigned{0};  // of the last call
    std::atomic<int> cSessions{0};
    std::atomic<int> cPads{0};  // logins by the pad

    // Calls that were in the module's signing and session functions at once, at most, since it was set to 0.
    std::atomic<int> cMostAtOnce{0};

    // Ends all sessions of all tokens behind their users' backs.
    void (*pfnLoseSessions)() = nullptr;
};

// Exported by the module.
extern "C" Pkcs11Shim* VexTestPkcs11Shim();
extern "C" unsigned long VexTestInitialiseModule();
