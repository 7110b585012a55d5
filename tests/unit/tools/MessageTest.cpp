// The escapes of messages about the command line.
#include "common/Message.h"

#include <gtest/gtest.h>

#include "Row.h"

namespace {

struct UsageError : Row {
    std::string strText;
    std::string strShown;
};

class UsageErrorTest : public testing::TestWithParam<UsageError> {};

TEST_P(UsageErrorTest, IsOneLineAndAHint) {
    EXPECT_EQ(tools::VisibleUsageError(GetParam().strText), GetParam().strShown);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, UsageErrorTest,
    testing::Values(UsageError{{"Empty"}, "", ""}, UsageError{{"OneLine"}, "no command\n", "no command\n"},
                    UsageError{{"WithoutAnEnd"}, "no command", "no command\n"},
                    UsageError{{"WithAHint"}, "no command\nRun with --help.\n", "no command\nRun with --help.\n"},
                    UsageError{{"ArgumentOfTwoLines"}, "no a\nb\nRun with --help.\n", "no a\\nb\nRun with --help.\n"},
                    UsageError{{"ArgumentEndsItsLine"}, "no a\n\nRun with --help.\n", "no a\\n\nRun with --help.\n"},
                    UsageError{{"OtherControls"}, "no \x1B[2J\r\nHint\n", "no \\x1b[2J\\r\nHint\n"}),
    RowName);

}  // namespace
