// Replaces the wall clock for a test program that is linked with this file, or as a library for LD_PRELOAD. The file
// that the environment variable VEX_TEST_CLOCK_FILE names has the time: see FakeClock.h. Clocks that nobody can set
// (CLOCK_MONOTONIC) stay as they are, and so do all waits.

#include "FakeClock.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

namespace {

constexpr long kNanosecondsPerMicrosecond = 1000;

FakeTime* Map() {
    const char* const pszFile = std::getenv("VEX_TEST_CLOCK_FILE");
    const int nFile = pszFile != nullptr ? open(pszFile, O_RDWR | O_CREAT | O_CLOEXEC, 0666) : -1;
    if (nFile < 0 || ftruncate(nFile, sizeof(FakeTime)) != 0) {
        return nullptr;
    }
    void* const pMapped = mmap(nullptr, sizeof(FakeTime), PROT_READ | PROT_WRITE, MAP_SHARED, nFile, 0);
    close(nFile);
    return pMapped != MAP_FAILED ? static_cast<FakeTime*>(pMapped) : nullptr;
}

// Null before the variable is set.
FakeTime* TheTime() {
    static std::atomic<FakeTime*> s_pTime{nullptr};
    if (s_pTime == nullptr) {
        s_pTime = Map();
    }
    return s_pTime;
}

int RealGetTime(clockid_t clock, timespec* pTime) {
    static auto* const s_pNext = reinterpret_cast<decltype(clock_gettime)*>(dlsym(RTLD_NEXT, "clock_gettime"));
    return s_pNext(clock, pTime);
}

timespec Now() {
    timespec now{};
    RealGetTime(CLOCK_REALTIME, &now);
    const FakeTime* const pTime = TheTime();
    if (pTime != nullptr && pTime->nFrozen != 0) {
        now = {};
    }
    now.tv_sec += pTime != nullptr ? pTime->nSeconds.load() : 0;
    return now;
}

}  // namespace

void SetFakeTime(std::time_t time) {
    FakeTime* const pTime = TheTime();
    if (pTime == nullptr) {
        std::abort();
    }
    pTime->nFrozen = 1;
    pTime->nSeconds = time;
}

void MoveFakeTime(std::time_t seconds) {
    FakeTime* const pTime = TheTime();
    if (pTime == nullptr) {
        std::abort();
    }
    pTime->nFrozen = 0;
    pTime->nSeconds = seconds;
}

extern "C" {

int clock_gettime(clockid_t clock, timespec* pTime) noexcept {
    if (clock != CLOCK_REALTIME && clock != CLOCK_REALTIME_COARSE) {
        return RealGetTime(clock, pTime);
    }
    *pTime = Now();
    return 0;
}

int gettimeofday(timeval* pTime, void*) noexcept {
    const timespec now = Now();
    *pTime = {now.tv_sec, now.tv_nsec / kNanosecondsPerMicrosecond};
    return 0;
}

std::time_t time(std::time_t* pTime) noexcept {
    const std::time_t now = Now().tv_sec;
    if (pTime != nullptr) {
        *pTime = now;
    }
    return now;
}

int timespec_get(timespec* pTime, int nBase) noexcept {
    *pTime = Now();
    return nBase;
}

}  // extern "C"
