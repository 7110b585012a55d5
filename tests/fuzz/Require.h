// What a fuzz target requires of the code under test. The program ends when it does not hold.
#pragma once

#include <cstdio>
#include <cstdlib>

// The arguments behind the first are the caller's place. Clang 14 has no std::source_location.
inline void Require(bool bHolds, const char* pszFile = __builtin_FILE(), int nLine = __builtin_LINE()) {
    if (!bHolds) {
        static_cast<void>(std::fprintf(stderr, "%s:%d: this does not hold\n", pszFile, nLine));
        std::abort();
    }
}
