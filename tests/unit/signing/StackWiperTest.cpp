// What a call leaves behind.
#include "signing/StackWiper.h"

#include <gtest/gtest.h>

#include "VectorRegisters.h"

namespace {

TEST(StackWiper, ClearsTheVectorRegisters) {
    const VectorRegisters registers = RegistersAfter([] {
        const vextk::StackWiper wiper(vextk::StackWiper::kSigningDepth);
        FillVectorRegisters('\x5A');
    });
    EXPECT_FALSE(registers.Contain("\x5A\x5A\x5A\x5A\x5A\x5A\x5A\x5A"));
}

}  // namespace
