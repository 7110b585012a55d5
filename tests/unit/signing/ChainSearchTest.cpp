// The search for a chain among authorities of one name.
#include <gtest/gtest.h>

#include <cstddef>
#include <ctime>
#include <utility>

#include "MemoryCertificate.h"
#include "signing/Chain.h"

namespace vextk {
namespace {

class ChainSearch : public testing::Test {
protected:
    ChainSearch() { InitialiseOpenSsl(); }

    IdentityPtr Signer() const {
        return MakeIdentity(
            Make({m_signerKey.get(), m_now, m_now + 1000, 1, "Signer", m_authorityKey.get(), "Authority"}), nullptr);
    }

    // Of the key that signed the signer's certificate. Another key signed this one.
    IdentityPtr SubordinateAuthority(std::size_t nSerial, const char* pszIssuer) const {
        return MakeIdentity(Make({m_authorityKey.get(), m_now, m_now + 1000, static_cast<long>(nSerial), "Authority",
                                  m_otherKey.get(), pszIssuer, true}),
                            nullptr);
    }

    IdentityPtr Root() const {
        return MakeIdentity(Make({m_authorityKey.get(), m_now, m_now + 1000, 1, "Authority", nullptr, {}, true}),
                            nullptr);
    }

    const std::time_t m_now = std::time(nullptr);

private:
    const KeyPtr m_signerKey{EVP_EC_gen("P-256")};
    const KeyPtr m_authorityKey{EVP_EC_gen("P-256")};
    const KeyPtr m_otherKey{EVP_EC_gen("P-256")};
};

// A search takes as much work as nearly 1,000 signatures that it verifies: here one for each authority that the
// signer's issuer may be, and two for the chain with the root, which comes last.
TEST_F(ChainSearch, GivesUpWhenItIsTooMuchWork) {
    const IdentityPtr signer = Signer();
    const IdentityPtr root = Root();
    Identities certificates;
    for (const auto& [cOthers, cIssuers] : {std::pair<std::size_t, std::size_t>{950, 1}, {1000, 0}}) {
        while (certificates.size() < cOthers) {
            certificates.push_back(SubordinateAuthority(certificates.size() + 2, "Elsewhere"));
        }
        certificates.push_back(root);
        const Chain chain = FindChain(signer, SelectAuthorities(certificates), m_now);
        EXPECT_EQ(chain.issuers.size(), cIssuers);
        EXPECT_EQ(chain.bHasRoot, cIssuers == 1);
        certificates.pop_back();
    }
}

// Certificates that name themselves, and that another key has signed: the authority's for its next key.
TEST_F(ChainSearch, OfSeveralChainsWithoutARootTheFirstCounts) {
    const IdentityPtr signer = Signer();
    // The second number: more than the search verifies, which gives up with what it has.
    for (const std::size_t cAuthorities : {3, 500}) {
        Identities certificates;
        while (certificates.size() < cAuthorities) {
            certificates.push_back(SubordinateAuthority(certificates.size() + 1, "Authority"));
        }
        const Chain chain = FindChain(signer, SelectAuthorities(certificates), m_now);
        ASSERT_EQ(chain.issuers.size(), 1U) << cAuthorities;
        EXPECT_EQ(chain.issuers.front(), certificates.front());
        EXPECT_FALSE(chain.bHasRoot);
    }
}

}  // namespace
}  // namespace vextk
