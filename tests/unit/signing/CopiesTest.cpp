// Copies of a certificate in one store, such as a card's certificate under two identifiers.
#include <gtest/gtest.h>

#include "SelfSigned.h"
#include "signing/Candidates.h"

namespace vextk {
namespace {

IdentityPtr CopyOf(const SelfSigned& identity, bool bWithKey, Flaw flawWithoutKey = Flaw::kNoPrivateKey) {
    X509_up_ref(identity.certificate.get());
    if (bWithKey) {
        EVP_PKEY_up_ref(identity.key.get());
    }
    return MakeIdentity(X509Ptr(identity.certificate.get()),
                        MakeMemoryKey(KeyPtr(bWithKey ? identity.key.get() : nullptr)), flawWithoutKey);
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

TEST(Copies, TellThatThereIsAKeyThatMayNotSign) {
    const SelfSigned parts;
    for (const Flaw flaw : {Flaw::kNoPrivateKey, Flaw::kKeyCannotSign}) {
        const Flaw other = flaw == Flaw::kNoPrivateKey ? Flaw::kKeyCannotSign : Flaw::kNoPrivateKey;
        const Identities identities =
            WithoutCopies({CopyOf(parts, false, flaw), CopyOf(parts, false, other), CopyOf(parts, false, flaw)});
        ASSERT_EQ(identities.size(), 1U);
        EXPECT_EQ(identities[0]->FlawAt(identities[0]->NotBefore()), Flaw::kKeyCannotSign);
    }
}

TEST(Copies, DamagedCertificatesAreNoCopiesOfEachOther) {
    EXPECT_EQ(WithoutCopies({MakeIdentity(nullptr, nullptr), MakeIdentity(nullptr, nullptr)}).size(), 2U);
}

}  // namespace
}  // namespace vextk
