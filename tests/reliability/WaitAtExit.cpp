// For LD_PRELOAD: after its own exit handlers the program waits for the test that started it. Programs that it starts
// do not wait.
#include <cstdlib>

#include "WaitForTest.h"

namespace {

[[gnu::constructor]] void Prepare() {
    unsetenv("LD_PRELOAD");
    std::atexit(WaitForTest);
}

}  // namespace
