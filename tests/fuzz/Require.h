// What a fuzz target requires of the code under test. The program ends when it does not hold.
#pragma once

#include <cstdlib>

inline void Require(bool bHolds) {
    if (!bHolds) {
        std::abort();
    }
}
