#include "posix/ForkPhases.h"

#include <gtest/gtest.h>

#include <string>

#include "ChildProcess.h"

namespace vexposix {
namespace {

std::string s_strCalls;

template <char ch>
constexpr ForkHandlers kNoted{[] {
                                  s_strCalls += {ch, 'b'};
                              },
                              [] {
                                  s_strCalls += {ch, 'p'};
                              },
                              [] {
                                  s_strCalls += {ch, 'c'};
                              }};

// In a child, because what is added stays for the life of the process.
TEST(ForkPhases, RunInOrderBeforeAForkAndBackwardsAfterIt) {
    ExpectChildPasses([] {
        s_strCalls.reserve(100);
        AddToFork(ForkPhase::kOpenFiles, kNoted<'4'>);
        AddToFork(ForkPhase::kHandles, kNoted<'1'>);
        AddToFork(ForkPhase::kModules, {nullptr, nullptr, kNoted<'3'>.pfnInChild});
        ExpectChildPasses([] { EXPECT_EQ(s_strCalls, "1b4b4c3c1c"); });
        EXPECT_EQ(s_strCalls, "1b4b4p1p");
    });
}

}  // namespace
}  // namespace vexposix
