// The digests and keys that a signature may have.
#pragma once

#include <openssl/evp.h>

#include <span>
#include <string>
#include <string_view>

namespace vexsign::verify {

struct KnownDigest {
    const char* pszName;     // as vexsign p1 takes it
    const char* pszOpenSsl;  // OpenSSL's name
    bool bTrusted;           // false: others can make data that has the digest of signed data
};

// All digests that are told apart, the usual ones first.
std::span<const KnownDigest> KnownDigests();
// Null: unknown.
const KnownDigest* FindDigest(const EVP_MD* pDigest);
const KnownDigest* FindDigest(int nNid);

// Why a signature with this digest is not accepted, and what to do.
std::string DistrustText(const KnownDigest& digest);

// What is wrong with the key for any signature: another kind, too short. Empty: nothing.
std::string KeyFault(EVP_PKEY* pKey);

// Why the signature cannot be one of this key, whatever it signs: its length, or r and s of ECDSA. Empty: the form
// gives no reason.
std::string SignatureFormFault(EVP_PKEY* pKey, std::string_view signature);

}  // namespace vexsign::verify
