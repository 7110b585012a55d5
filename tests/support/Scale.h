// How much a test that takes its weight from numbers does: all of it as shipped, less under a sanitizer.
#pragma once

#include <cstdio>

#if defined(__SANITIZE_THREAD__)
inline constexpr int kScaleDivisor = 50;
#elif defined(__SANITIZE_ADDRESS__)
inline constexpr int kScaleDivisor = 20;
#else
inline constexpr int kScaleDivisor = 1;
#endif

// The number to use for the full one; says so when it is less.
inline int Scaled(int nFull) {
    const int nScaled = nFull / kScaleDivisor > 0 ? nFull / kScaleDivisor : 1;
    if (nScaled != nFull) {
        std::printf("Scaled down under a sanitizer: %d instead of %d\n", nScaled, nFull);
    }
    return nScaled;
}
