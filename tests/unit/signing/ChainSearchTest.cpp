// The search for a chain among authorities of one name.
#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "MemoryCertificate.h"
#include "signing/Chain.h"

namespace vextk {
namespace {

// A search takes as much work as nearly 1,000 signatures that it verifies: here one for each authority that the
// signer's issuer may be, and two for the chain with the root, which comes last.
TEST(ChainSearch, GivesUpWhenItIsTooMuchWork) {
    InitialiseOpenSsl();
    const std::time_t now = std::time(nullptr);
    const KeyPtr signerKey(EVP_EC_gen("P-256"));
    const KeyPtr authorityKey(EVP_EC_gen("P-256"));
    const KeyPtr otherKey(EVP_EC_gen("P-256"));
    const IdentityPtr signer =
        MakeIdentity(Make({signerKey.get(), now, now + 1000, 1, "Signer", authorityKey.get(), "Authority"}), nullptr);
    const IdentityPtr root =
        MakeIdentity(Make({authorityKey.get(), now, now + 1000, 1, "Authority", nullptr, {}, true}), nullptr);

    Identities certificates;
    for (const auto& [cOthers, cIssuers] : {std::pair<std::size_t, std::size_t>{950, 1}, {1000, 0}}) {
        while (certificates.size() < cOthers) {
            const auto nSerial = static_cast<long>(certificates.size()) + 2;
            certificates.push_back(MakeIdentity(
                Make({authorityKey.get(), now, now + 1000, nSerial, "Authority", otherKey.get(), "Elsewhere", true}),
                nullptr));
        }
        certificates.push_back(root);
        const Chain chain = FindChain(signer, SelectAuthorities(certificates), now);
        EXPECT_EQ(chain.issuers.size(), cIssuers);
        EXPECT_EQ(chain.bHasRoot, cIssuers == 1);
        certificates.pop_back();
    }
}

// Certificates that name themselves, and that another key has signed: the authority's for its next key.
TEST(ChainSearch, OfSeveralChainsWithoutARootTheFirstCounts) {
    InitialiseOpenSsl();
    const std::time_t now = std::time(nullptr);
    const KeyPtr signerKey(EVP_EC_gen("P-256"));
    const KeyPtr oldKey(EVP_EC_gen("P-256"));
    const KeyPtr newKey(EVP_EC_gen("P-256"));
    const IdentityPtr signer =
        MakeIdentity(Make({signerKey.get(), now, now + 1000, 1, "Signer", newKey.get(), "Authority"}), nullptr);
    // The second number: more than the search verifies, which gives up with what it has.
    for (const long nAuthorities : {3L, 500L}) {
        Identities certificates;
        for (long nSerial = 1; nSerial <= nAuthorities; ++nSerial) {
            certificates.push_back(MakeIdentity(
                Make({newKey.get(), now, now + 1000, nSerial, "Authority", oldKey.get(), "Authority", true}), nullptr));
        }
        const Chain chain = FindChain(signer, SelectAuthorities(certificates), now);
        ASSERT_EQ(chain.issuers.size(), 1U) << nAuthorities;
        EXPECT_EQ(chain.issuers.front(), certificates.front());
        EXPECT_FALSE(chain.bHasRoot);
    }
}

}  // namespace
}  // namespace vextk
