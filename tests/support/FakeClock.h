// A wall clock that a test sets. FakeClock.cpp has the functions of libc that use it.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

// The file with the time, which several processes map. A program in another language writes its 16 bytes. While the
// clock is moved, a reader may see one new and one old number.
struct FakeTime {
    std::atomic<std::int64_t> nSeconds;  // added to the real time, or the time itself if the clock stands still
    std::atomic<std::int64_t> nFrozen;   // 1: the clock stands still
};

// The clock stands still at that time, in seconds since 1970.
void SetFakeTime(std::time_t time);
// The clock goes, and is so many seconds fast.
void MoveFakeTime(std::time_t seconds);
