// The digests that a time stamp may have: nobody can make two texts with the same one. Any thread.
#pragma once

#include <span>
#include <string>

#include "timestamp/Fault.h"
#include "timestamp/OpenSsl.h"

namespace vextimestamp {

struct KnownDigest {
    const char* pszName;  // OpenSSL's, and that of Wanted::strDigest
    int nNid;
};

// Null: unknown, or too weak.
const KnownDigest* FindDigest(int nNid);
const KnownDigest* FindDigest(const X509_ALGOR* pAlgorithm);

// Of any of OpenSSL's names. Throws Fault with the names that are accepted.
const KnownDigest& RequireDigest(const std::string& strName);

// Throws Fault if this OpenSSL or its configuration lacks the digest.
Bytes DigestOf(const KnownDigest& digest, std::span<const unsigned char> bytes);

}  // namespace vextimestamp
