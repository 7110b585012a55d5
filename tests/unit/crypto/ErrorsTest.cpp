// OpenSSL's reasons as text.
#include "crypto/Errors.h"

#include <gtest/gtest.h>

namespace vexcrypto {
namespace {

TEST(Reason, OfNoErrorIsUnknown) {
    ERR_clear_error();
    EXPECT_EQ(LastReason(), "unknown reason");
    ERR_raise(ERR_LIB_USER, 77);  // nobody has given this number a text
    EXPECT_EQ(LastReason(), "unknown reason");
    ERR_clear_error();
}

TEST(Reason, HasItsDetailsIfThereAreAny) {
    ERR_raise_data(ERR_LIB_ASN1, ERR_R_PASSED_NULL_PARAMETER, "the %s", "third");
    EXPECT_EQ(LastReason(), "passed a null parameter (the third)");
    ERR_raise_data(ERR_LIB_ASN1, ERR_R_PASSED_NULL_PARAMETER, "%s", "");
    EXPECT_EQ(LastReason(), "passed a null parameter");
    ERR_clear_error();
}

TEST(Reason, ThatMemoryRanOutIsNone) {
    ERR_raise(ERR_LIB_ASN1, ERR_R_MALLOC_FAILURE);
    EXPECT_THROW(LastReason(), std::bad_alloc);
    ERR_clear_error();
}

}  // namespace
}  // namespace vexcrypto
