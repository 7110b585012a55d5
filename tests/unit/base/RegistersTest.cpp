// Clearing the vector registers.
#include "VEXRegisters.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "VectorRegisters.h"

namespace {

const std::string kRegister(16, '\x5A');

TEST(Registers, KeepWhatWasLoaded) {
    const VectorRegisters registers = RegistersAfter([] { FillVectorRegisters('\x5A'); });
    const auto cKept = std::count(registers.bytes.begin(), registers.bytes.end(), '\x5A');
    EXPECT_GE(cKept, 15 * 16);
}

TEST(Registers, AreCleared) {
    const VectorRegisters registers = RegistersAfter([] {
        FillVectorRegisters('\x5A');
        ClearVectorRegisters();
    });
    EXPECT_FALSE(registers.Contain(kRegister));
}

}  // namespace
