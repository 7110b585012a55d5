// OpenSSL's queue of errors, and its reasons as text.
#include "crypto/Errors.h"

#include <gtest/gtest.h>

namespace vexcrypto {
namespace {

TEST(Mark, RemovesWhatWasAddedSince) {
    ERR_clear_error();
    {
        const ErrorMark mark;
        ERR_raise(ERR_LIB_USER, 1);
        const ErrorMark inner;
        ERR_raise(ERR_LIB_USER, 2);
    }
    EXPECT_EQ(ERR_peek_error(), 0U);

    ERR_raise(ERR_LIB_USER, 3);
    {
        const ErrorMark mark;
        ERR_raise(ERR_LIB_USER, 4);
    }
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), 3);
    ERR_clear_error();
}

TEST(Mark, IgnoresAMarkThatIsLeftBehind) {
    ERR_clear_error();
    {
        const ErrorMark mark;
        ERR_raise(ERR_LIB_USER, 1);
        ERR_set_mark();
    }
    EXPECT_EQ(ERR_peek_error(), 0U);
}

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
