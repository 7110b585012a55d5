// A program waits while the test that started it examines it.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

// Tells the test that the program waits, and returns when the test lets it continue. The environment variable
// VEX_TEST_WAIT contains the numbers of the two descriptors, "HERE,GO".
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
