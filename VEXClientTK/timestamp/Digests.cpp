#include "timestamp/Digests.h"

#include <openssl/objects.h>

#include <algorithm>
#include <array>

#include "posix/VisibleText.h"

namespace vextimestamp {
namespace {

constexpr std::array kDigests = {
    KnownDigest{"SHA256", NID_sha256},     KnownDigest{"SHA384", NID_sha384},
    KnownDigest{"SHA512", NID_sha512},     KnownDigest{"SHA512-256", NID_sha512_256},
    KnownDigest{"SHA3-256", NID_sha3_256}, KnownDigest{"SHA3-384", NID_sha3_384},
    KnownDigest{"SHA3-512", NID_sha3_512},
};

}  // namespace

const KnownDigest* FindDigest(int nNid) {
    const auto* const pFound =
        std::find_if(kDigests.begin(), kDigests.end(), [&](const KnownDigest& digest) { return digest.nNid == nNid; });
    return pFound == kDigests.end() ? nullptr : pFound;
}

const KnownDigest* FindDigest(const X509_ALGOR* pAlgorithm) {
    const ASN1_OBJECT* pObject = nullptr;
    X509_ALGOR_get0(&pObject, nullptr, nullptr, pAlgorithm);
    return FindDigest(OBJ_obj2nid(pObject));
}

const KnownDigest& RequireDigest(const std::string& strName) {
    const ErrorMark mark;
    const DigestPtr digest(EVP_MD_fetch(nullptr, strName.c_str(), nullptr));
    if (const KnownDigest* const pKnown = digest ? FindDigest(EVP_MD_get_type(digest.get())) : nullptr) {
        return *pKnown;
    }
    std::string strNames;
    for (const KnownDigest& known : kDigests) {
        strNames += (strNames.empty() ? "" : ", ") + std::string(known.pszName);
    }
    throw Fault("a time stamp cannot have the digest \"" + vexposix::Visible(strName, true) +
                "\"; use one of: " + strNames);
}

Bytes DigestOf(const KnownDigest& digest, std::span<const unsigned char> bytes) {
    const ErrorMark mark;
    Bytes result(EVP_MAX_MD_SIZE);
    std::size_t cb = 0;
    if (EVP_Q_digest(nullptr, digest.pszName, nullptr, bytes.data(), bytes.size(), result.data(), &cb) != 1) {
        throw Fault(std::string("OpenSSL cannot compute ") + digest.pszName + ": " + LastReason() +
                    "; use another digest for the time stamp");
    }
    result.resize(cb);
    return result;
}

}  // namespace vextimestamp
