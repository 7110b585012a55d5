// For LD_PRELOAD: the program waits for the test that started it when it is about to end, behind its own exit handlers.
// Programs that it starts itself are not concerned.
#include <cstdlib>

#include "WaitForTest.h"

namespace {

[[gnu::constructor]] void Prepare() {
    unsetenv("LD_PRELOAD");
    std::atexit(WaitForTest);
}

}  // namespace
