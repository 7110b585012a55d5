// How much work a store file asks for before its PIN can be tried. Files come from others, and name the number of
// iterations themselves.
#pragma once

#include <cstdint>

#include <openssl/pkcs12.h>

#include "signing/OpenSsl.h"

namespace vextk {

// Of one file. An iteration is that of PBKDF2, PBKDF1 or the PKCS #12 derivation, or a block of scrypt (N * r * p of
// them). For one thread.
class DerivationWork {
public:
    // For one encryption or MAC, and for all of a file: about three seconds, and fifteen.
    static constexpr std::uint64_t kMost = 10'000'000;
    static constexpr std::uint64_t kMostOfFile = 50'000'000;

    // Each counts what is about to be computed. Throws VCTK_E_STORE_UNREADABLE when it is too much. What cannot be read
    // counts nothing: OpenSSL refuses it as well.
    void Add(const X509_ALGOR* pAlgorithm);
    void Add(const X509_SIG* pEncryptedKey);
    void AddMac(const PKCS12* pFile);

private:
    void AddIterations(std::uint64_t cIterations);

    std::uint64_t m_cIterations = 0;
};

}  // namespace vextk
