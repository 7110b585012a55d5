// Limits the work that a store file demands before its PIN can be tried. Files come from others, and the number of
// iterations is written in the file.
#pragma once

#include <cstdint>

#include <openssl/pkcs12.h>

#include "signing/OpenSsl.h"

namespace vextk {

// Counts the work for one file in iterations: those of PBKDF2, PBKDF1 and the PKCS #12 derivation, and N * r * p for
// scrypt, or more if its salt is long. For one thread.
class DerivationWork {
public:
    // The limits for one encryption or MAC (about three seconds) and for a whole file (about fifteen seconds).
    static constexpr std::uint64_t kMost = 10'000'000;
    static constexpr std::uint64_t kMostOfFile = 50'000'000;

    // Called before a derivation, to count its work. Throws VCTK_E_STORE_UNREADABLE when a limit is exceeded.
    // Parameters that cannot be read count as 0, because OpenSSL refuses them as well.
    void Add(const X509_ALGOR* pAlgorithm);
    void Add(const X509_SIG* pEncryptedKey);
    // Throws VCTK_E_STORE_FORMAT for parameters that would crash OpenSSL.
    void AddMac(const PKCS12* pFile);

private:
    void AddIterations(std::uint64_t cIterations);

    std::uint64_t m_cIterations = 0;
};

}  // namespace vextk
