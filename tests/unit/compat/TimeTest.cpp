#include <gtest/gtest.h>

#include <ctime>

#include "VEXCompat.h"

namespace {

DWORD MonotonicMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<DWORD>(now.tv_sec * 1000 + now.tv_nsec / 1000000);
}

TEST(GetTickCount, IsTheMonotonicClockInMilliseconds) {
    for (int i = 0; i < 1000; ++i) {
        const DWORD dwBefore = MonotonicMilliseconds();
        const DWORD dwTick = GetTickCount();
        const DWORD dwAfter = MonotonicMilliseconds();
        ASSERT_LE(dwBefore, dwTick);
        ASSERT_LE(dwTick, dwAfter);
    }
}

}  // namespace
