// A program lets the test that started it look at it.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

// Says that it is here, and returns when the test says so too. The environment variable VEX_TEST_WAIT names the
// descriptors, "HERE,GO".
inline void WaitForTest() {
    const char* const pszDescriptors = std::getenv("VEX_TEST_WAIT");
    int nHere = -1;
    int nGo = -1;
    if (pszDescriptors == nullptr || std::sscanf(pszDescriptors, "%d,%d", &nHere, &nGo) != 2 ||
        write(nHere, "h", 1) != 1) {
        std::abort();
    }
    char ch = 0;
    while (read(nGo, &ch, 1) < 0 && errno == EINTR) {
    }
}
