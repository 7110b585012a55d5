// Runs a piece of a test in a forked child, where it may change its user, limits, directory or mounts.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>

// What the child returned; -1 when a signal ended it. A failed expectation of the child counts as 255; its message goes
// to standard error with the test's other output.
template <typename Body>
int RunInChild(Body body) {
    std::fflush(nullptr);
    const pid_t nChild = fork();
    if (nChild == 0) {
        const int nResult = body();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 255 : nResult);
    }
    int nStatus = 0;
    if (nChild < 0 || waitpid(nChild, &nStatus, 0) != nChild || !WIFEXITED(nStatus)) {
        return -1;
    }
    return WEXITSTATUS(nStatus);
}

// Gives up root's rights, for good. True when the process now is an ordinary user.
inline constexpr uid_t kOrdinaryUser = 65534;

inline bool BecomeOrdinaryUser() {
    return geteuid() != 0 || (setgid(kOrdinaryUser) == 0 && setuid(kOrdinaryUser) == 0 && geteuid() != 0);
}
