// Scales the number of repetitions of a test. The shipped build runs all of them. A sanitizer's build runs fewer, and
// the environment variable VEX_TEST_DIVISOR sets another divisor.
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

// Returns the scaled number. Prints both when it is less.
inline int Scaled(int nFull) {
    const int nDivisor = static_cast<int>(AmountOf("VEX_TEST_DIVISOR", kScaleDivisor));
    const int nScaled = nFull / nDivisor > 0 ? nFull / nDivisor : 1;
    if (nScaled != nFull) {
        std::printf("Scaled down: %d instead of %d\n", nScaled, nFull);
    }
    return nScaled;
}
