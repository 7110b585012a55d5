// Copies of a certificate in one store, such as a card's certificate under two identifiers.
#include <gtest/gtest.h>

#include "SelfSigned.h"
#include "signing/Candidates.h"

namespace vextk {
namespace {

IdentityPtr CopyOf(const SelfSigned& identity, bool bWithKey) {
    X509_up_ref(identity.certificate.get());
    if (bWithKey) {
        EVP_PKEY_up_ref(identity.key.get());
    }
    return MakeIdentity(X509Ptr(identity.certificate.get()),
                        MakeMemoryKey(KeyPtr(bWithKey ? identity.key.get() : nullptr)));
}

TEST(Copies, CountOnceAndTheOneWithTheKeyStays) {
    const SelfSigned first;
    const SelfSigned second;
    for (const bool bKeyFirst : {false, true}) {
        const Identities identities = WithoutCopies(
            {CopyOf(first, bKeyFirst), CopyOf(second, false), CopyOf(first, !bKeyFirst), CopyOf(second, false)});
        ASSERT_EQ(identities.size(), 2U);
        EXPECT_NE(identities[0]->Key(), nullptr);
        EXPECT_EQ(identities[0]->Certificate(), first.certificate.get());
        EXPECT_EQ(identities[1]->Key(), nullptr);
        EXPECT_EQ(identities[1]->Certificate(), second.certificate.get());
    }
}

TEST(Copies, DamagedCertificatesAreNoCopiesOfEachOther) {
    EXPECT_EQ(WithoutCopies({MakeIdentity(nullptr, nullptr), MakeIdentity(nullptr, nullptr)}).size(), 2U);
}

}  // namespace
}  // namespace vextk
