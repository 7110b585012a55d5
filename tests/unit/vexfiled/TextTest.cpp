// How log lines show text that clients send.
#include "Text.h"

#include <gtest/gtest.h>

namespace {

using vexfiled::Quoted;

TEST(Quoted, TextOfAClientCannotLookLikeALogLine) {
    EXPECT_EQ(Quoted("/tmp/PILog.txt"), "\"/tmp/PILog.txt\"");
    EXPECT_EQ(Quoted(std::string_view("a\n\x1B[31mb\0c", 10)), "\"a\\x0A\\x1B[31mb\\x00c\"");
    EXPECT_EQ(Quoted("\"\\ ~\x7F"), "\"\\x22\\x5C ~\\x7F\"");
    EXPECT_EQ(Quoted("\xC3\xA9"), "\"\\xC3\\xA9\"");
}

TEST(Quoted, LongTextIsCut) {
    const std::string strFits(200, 'a');
    EXPECT_EQ(Quoted(strFits), '"' + strFits + '"');
    EXPECT_EQ(Quoted(strFits + 'a'), '"' + strFits + "...\"");
}

}  // namespace
