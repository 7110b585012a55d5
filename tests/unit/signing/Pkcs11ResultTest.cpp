// How error texts name the results of a PKCS #11 module.
#include <gtest/gtest.h>

#include <string>

#include "signing/Pkcs11Module.h"

namespace vextk {
namespace {

TEST(Pkcs11ResultTest, AKnownOneIsShownByName) {
    EXPECT_EQ(Pkcs11ResultText(CKR_PIN_INCORRECT), "CKR_PIN_INCORRECT");
}

// Vendors have results of their own.
TEST(Pkcs11ResultTest, AnUnknownOneIsShownAsANumber) {
    EXPECT_EQ(Pkcs11ResultText(0x80000001), "PKCS #11 result 0x80000001");
    EXPECT_EQ(Pkcs11ResultText(0x80ABCDEF), "PKCS #11 result 0x80ABCDEF");
    EXPECT_EQ(Pkcs11ResultText(CKR_OK), "PKCS #11 result 0x0");
}

}  // namespace
}  // namespace vextk
