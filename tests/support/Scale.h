// How much a test that takes its weight from numbers does: all of it as shipped, less under a sanitizer or where the
// environment variable VEX_TEST_DIVISOR says by how much.
#pragma once

#include <cstdio>

#include "Amount.h"

#if defined(__SANITIZE_THREAD__)
inline constexpr int kScaleDivisor = 50;
#elif defined(__SANITIZE_ADDRESS__)
inline constexpr int kScaleDivisor = 20;
#else
inline constexpr int kScaleDivisor = 1;
#endif

// The number to use for the full one; says so when it is less.
inline int Scaled(int nFull) {
    const int nDivisor = static_cast<int>(AmountOf("VEX_TEST_DIVISOR", kScaleDivisor));
    const int nScaled = nFull / nDivisor > 0 ? nFull / nDivisor : 1;
    if (nScaled != nFull) {
        std::printf("Scaled down: %d instead of %d\n", nScaled, nFull);
    }
    return nScaled;
}
