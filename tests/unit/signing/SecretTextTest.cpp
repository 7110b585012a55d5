#include "signing/SecretText.h"

#include <gtest/gtest.h>

namespace vextk {
namespace {

// A text that moves leaves a copy behind, which nobody wipes.
TEST(SecretText, DoesNotMoveWhileItGrowsToItsCapacity) {
    constexpr size_t kCapacity = 100;
    SecretText text(kCapacity);
    text.Append('x');
    const char* const pchText = text.Data();
    while (text.View().size() < kCapacity) {
        text.Append('x');
    }
    EXPECT_EQ(text.Data(), pchText);
}

TEST(SecretText, IsCutFromItsEnd) {
    SecretText text(3);
    for (const char ch : {'1', '2', '\n'}) {
        text.Append(ch);
    }
    text.Truncate(2);
    EXPECT_EQ(text.View(), "12");
}

}  // namespace
}  // namespace vextk
