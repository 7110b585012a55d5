#include "signing/Chain.h"

#include <algorithm>
#include <deque>
#include <new>
#include <utility>

#include "crypto/VerifyTime.h"

namespace vextk {
namespace {

using Path = Identities;  // the signer first

constexpr size_t kLongestPath = 10;

// Bounds the work for a store whose certificates were made to cost time. The units are microseconds at the most, on a
// slow processor and with any kind of key.
constexpr size_t kMostWork = 1000000;
constexpr size_t kWorkOfSignature = 1000;
constexpr size_t kWorkOfComparison = 1;
constexpr size_t kBytesHashedPerWork = 256;

unsigned long NameHash(const X509_NAME* pName) {
    int nSucceeded = 0;
    const unsigned long ulHash = X509_NAME_hash_ex(pName, nullptr, nullptr, &nSucceeded);
    if (nSucceeded != 1) {
        RequireMemory();
    }
    return ulHash;  // 0 for all names where the process has no SHA-1
}

// For OpenSSL, a chain ends here. An authority's certificate for its next key may name itself, too.
bool NamesItself(const Identity& certificate) {
    const ErrorMark mark;
    return X509_self_signed(certificate.Certificate(), 0) == 1;
}

bool IsRoot(const Identity& certificate) {
    const ErrorMark mark;
    const bool bRoot = X509_self_signed(certificate.Certificate(), 1) == 1;
    if (!bRoot) {
        RequireMemory();
    }
    return bRoot;
}

// Path lengths, name constraints and the rest of RFC 5280 section 6.1 are OpenSSL's to check. Extensions that it does
// not know do not matter here: each verifier decides about them.
bool Verifies(const Path& path, std::time_t now) {
    struct StackDeleter {
        void operator()(STACK_OF(X509) * pStack) const { sk_X509_free(pStack); }
    };
    const ErrorMark mark;
    const StorePtr trusted(RequireOpenSsl(X509_STORE_new()));
    RequireOpenSsl(X509_STORE_add_cert(trusted.get(), path.back()->Certificate()) == 1);
    const std::unique_ptr<STACK_OF(X509), StackDeleter> between(RequireOpenSsl(sk_X509_new_null()));
    for (size_t i = 1; i + 1 < path.size(); ++i) {
        RequireOpenSsl(sk_X509_push(between.get(), path[i]->Certificate()) > 0);
    }
    const StoreContextPtr context(RequireOpenSsl(X509_STORE_CTX_new()));
    RequireOpenSsl(X509_STORE_CTX_init(context.get(), trusted.get(), path.front()->Certificate(), between.get()) == 1);
    SetVerifyTime(context.get(), now);
    X509_STORE_CTX_set_flags(context.get(), X509_V_FLAG_PARTIAL_CHAIN | X509_V_FLAG_IGNORE_CRITICAL);
    const bool bValid = X509_verify_cert(context.get()) == 1;
    if (!bValid) {
        if (X509_STORE_CTX_get_error(context.get()) == X509_V_ERR_OUT_OF_MEM) {
            throw std::bad_alloc();
        }
        RequireMemory();
    }
    return bValid;
}

bool Contains(const Path& path, const IdentityPtr& certificate) {
    return std::find(path.begin(), path.end(), certificate) != path.end();
}

class Search {
public:
    Search(const Authorities& authorities, std::time_t now) : m_authorities(authorities), m_now(now) {}

    // Goes through the paths from short to long.
    Path ShortestPath(const IdentityPtr& signer) {
        Path withoutRoot;
        std::deque<Path> paths{{signer}};
        while (!paths.empty() && MayWork(0)) {
            const Path path = std::move(paths.front());
            paths.pop_front();
            bool bEnds = true;
            for (const IdentityPtr& issuer : IssuersOf(path)) {
                Path longer = path;
                longer.push_back(issuer);
                if (!NamesItself(*issuer)) {
                    paths.push_back(std::move(longer));
                    bEnds = false;
                } else if (IsValid(longer)) {
                    if (IsRoot(*issuer)) {
                        return longer;
                    }
                    if (withoutRoot.empty()) {
                        withoutRoot = longer;
                    }
                }
            }
            if (bEnds && withoutRoot.empty() && IsValid(path)) {
                withoutRoot = path;
            }
        }
        return withoutRoot;
    }

private:
    Identities IssuersOf(const Path& path) {
        Identities issuers;
        if (path.size() < kLongestPath && !NamesItself(*path.back())) {
            const auto [first, last] =
                m_authorities.equal_range(NameHash(X509_get_issuer_name(path.back()->Certificate())));
            for (auto named = first; named != last && MayWork(kWorkOfComparison); ++named) {
                if (named->second->IsValidAt(m_now) && !Contains(path, named->second) &&
                    IsIssuedBy(*path.back(), *named->second)) {
                    issuers.push_back(named->second);
                }
            }
        }
        return issuers;
    }

    bool IsIssuedBy(const Identity& certificate, const Identity& issuer) {
        const ErrorMark mark;
        if (X509_check_issued(issuer.Certificate(), certificate.Certificate()) != X509_V_OK) {
            RequireMemory();
            return false;
        }
        if (!MayWork(WorkOfSignature(certificate))) {
            return false;
        }
        const bool bSigned = X509_verify(certificate.Certificate(), X509_get0_pubkey(issuer.Certificate())) == 1;
        if (!bSigned) {
            RequireMemory();
        }
        return bSigned;
    }

    bool IsValid(const Path& path) {
        size_t nWork = 0;
        for (const IdentityPtr& certificate : path) {
            nWork += WorkOfSignature(*certificate);
        }
        return MayWork(nWork) && Verifies(path, m_now);
    }

    // The whole certificate is hashed.
    static size_t WorkOfSignature(const Identity& certificate) {
        const int cbCertificate = i2d_X509(certificate.Certificate(), nullptr);
        RequireOpenSsl(cbCertificate > 0);
        return kWorkOfSignature + static_cast<size_t>(cbCertificate) / kBytesHashedPerWork;
    }

    bool MayWork(size_t nWork) {
        m_nWork += nWork;
        return m_nWork <= kMostWork;
    }

    const Authorities& m_authorities;
    const std::time_t m_now;
    size_t m_nWork = 0;
};

}  // namespace

Authorities SelectAuthorities(const Identities& certificates) {
    Authorities authorities;
    for (const IdentityPtr& certificate : certificates) {
        if (IsAuthority(*certificate)) {
            authorities.emplace(NameHash(X509_get_subject_name(certificate->Certificate())), certificate);
        }
    }
    return authorities;
}

Chain FindChain(const IdentityPtr& signer, const Authorities& authorities, std::time_t now) {
    Chain chain;
    const Path path = Search(authorities, now).ShortestPath(signer);
    if (path.size() > 1) {
        chain.issuers.assign(path.begin() + 1, path.end());
        chain.bHasRoot = IsRoot(*path.back());
    }
    for (const auto& [nName, authority] : authorities) {
        chain.period.LimitBy(*authority, now);
    }
    return chain;
}

bool IsAuthority(const Identity& identity) {
    const ErrorMark mark;
    return identity.Certificate() != nullptr && X509_check_ca(identity.Certificate()) > 0;
}

}  // namespace vextk
