#include <ctime>

#include "VEXCompat.h"

DWORD GetTickCount() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<DWORD>(now.tv_sec) * 1000 + static_cast<DWORD>(now.tv_nsec) / 1000000;
}
