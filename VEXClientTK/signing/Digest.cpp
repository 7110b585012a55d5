#include "signing/Digest.h"

#include <algorithm>
#include <iterator>

#include "signing/AsciiCase.h"
#include "signing/Failure.h"

namespace vextk {
namespace {

// Names as OpenSSL's providers know them; each of these has aliases that EVP_MD_is_a resolves.
constexpr const char* kAccepted[] = {"SHA2-224",     "SHA2-256", "SHA2-384", "SHA2-512", "SHA2-512/224",
                                     "SHA2-512/256", "SHA3-224", "SHA3-256", "SHA3-384", "SHA3-512"};

struct WeakDigest {
    const char* pszName;
    const char* pszWhy;
};
// Each spelling is listed: not every provider has these digests, and the refusal must not depend on the provider.
constexpr WeakDigest kWeak[] = {
    {"MD2", "MD2 does not resist collisions; use SHA-256"},
    {"MD4", "MD4 does not resist collisions; use SHA-256"},
    {"MD5", "MD5 does not resist collisions; use SHA-256"},
    {"SSL3-MD5", "MD5 does not resist collisions; use SHA-256"},
    {"MD5-SHA1", "MD5 and SHA-1 do not resist collisions; use SHA-256"},
    {"SHA1", "SHA-1 does not resist collisions; use SHA-256"},
    {"SHA-1", "SHA-1 does not resist collisions; use SHA-256"},
    {"SHA", "SHA-1 does not resist collisions; use SHA-256"},
    {"SSL3-SHA1", "SHA-1 does not resist collisions; use SHA-256"},
    {"1.2.840.113549.2.5", "MD5 does not resist collisions; use SHA-256"},
    {"1.3.14.3.2.26", "SHA-1 does not resist collisions; use SHA-256"},
};

// Translates the JCA's names that OpenSSL does not know.
std::string OpenSslName(std::string_view strName) {
    for (const std::string_view name : {"SHA512/224", "SHA512/256"}) {
        if (EqualIgnoringCase(strName, name)) {
            return "SHA2-" + std::string(name.substr(std::string_view("SHA").size()));
        }
    }
    return std::string(strName);
}

DigestPtr FindAlgorithm(std::string_view strName) {
    for (const WeakDigest& weak : kWeak) {
        if (EqualIgnoringCase(weak.pszName, strName)) {
            throw Failure(VCTK_E_DIGEST_WEAK, weak.pszWhy);
        }
    }
    DigestPtr digest(EVP_MD_fetch(nullptr, OpenSslName(strName).c_str(), nullptr));
    if (!digest || std::none_of(std::begin(kAccepted), std::end(kAccepted),
                                [&](const char* pszAccepted) { return EVP_MD_is_a(digest.get(), pszAccepted) == 1; })) {
        RequireMemory();
        throw Failure(VCTK_E_DIGEST_UNKNOWN, std::string(strName) + ": use a SHA-2 or SHA-3 digest, such as SHA-256");
    }
    return digest;
}

}  // namespace

SigningDigest FindDigest(std::string_view strName) {
    constexpr std::string_view kPrehashed = "prehashed:";
    constexpr std::string_view kPss = "/PSS";
    SigningDigest digest;
    if (EqualIgnoringCase(strName.substr(0, kPrehashed.size()), kPrehashed)) {
        digest.bPrehashed = true;
        strName.remove_prefix(kPrehashed.size());
    }
    if (digest.bPrehashed && EqualIgnoringCase(strName, "NONE")) {
        return digest;
    }
    if (strName.size() > kPss.size() && EqualIgnoringCase(strName.substr(strName.size() - kPss.size()), kPss)) {
        digest.bPss = true;
        strName.remove_suffix(kPss.size());
    }
    digest.algorithm = FindAlgorithm(strName);
    return digest;
}

std::string DigestName(const EVP_MD* pDigest) {
    constexpr std::string_view kOpenSsl = "SHA2-";
    std::string strName = EVP_MD_get0_name(pDigest);
    if (strName.starts_with(kOpenSsl)) {
        strName.replace(0, kOpenSsl.size(), "SHA-");
    }
    return strName;
}

}  // namespace vextk
