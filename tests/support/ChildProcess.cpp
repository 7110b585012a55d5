#include "ChildProcess.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#ifdef VEX_COVERAGE
extern "C" void __gcov_dump();
// Null in a program that is not linked with the library.
extern "C" __attribute__((weak)) void VexTestDumpToolkitCoverage();
extern "C" __attribute__((weak)) void VexTestDumpBridgeCoverage();
#endif

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kMaxSecondsOfChild = 120;

}  // namespace

void NoteCoverage() {
#ifdef VEX_COVERAGE
    __gcov_dump();
    if (VexTestDumpToolkitCoverage != nullptr) {
        VexTestDumpToolkitCoverage();
    }
    if (VexTestDumpBridgeCoverage != nullptr) {
        VexTestDumpBridgeCoverage();
    }
#endif
}

void EndChildAtOnce() {
    std::fflush(nullptr);
    NoteCoverage();
    _exit(testing::Test::HasFailure() ? 1 : 0);
}

ChildEnd RunChild(const std::function<void()>& fnBody, Exit exit) {
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) {
        throw std::runtime_error("no pipe");
    }
    std::fflush(nullptr);
    Clock::time_point began = Clock::now();
    const pid_t nChild = fork();
    if (nChild < 0) {
        throw std::runtime_error("cannot fork");
    }
    if (nChild == 0) {
        alarm(kMaxSecondsOfChild);
        close(pipeEnds[0]);
        fnBody();
        const Clock::time_point returned = Clock::now();
        if (write(pipeEnds[1], &returned, sizeof returned) != static_cast<ssize_t>(sizeof returned)) {
            std::perror("write");
            _exit(1);
        }
        close(pipeEnds[1]);
        if (exit == Exit::kAtOnce) {
            EndChildAtOnce();
        }
        std::exit(testing::Test::HasFailure() ? 1 : 0);
    }
    close(pipeEnds[1]);

    int nStatus = 0;
    while (waitpid(nChild, &nStatus, 0) < 0 && errno == EINTR) {
    }
    const Clock::time_point ended = Clock::now();
    Clock::time_point returned;
    if (read(pipeEnds[0], &returned, sizeof returned) == static_cast<ssize_t>(sizeof returned)) {
        began = returned;
    }
    close(pipeEnds[0]);

    ChildEnd end;
    end.nStatus = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
    end.nSignal = WIFSIGNALED(nStatus) ? WTERMSIG(nStatus) : 0;
    end.dSeconds = std::chrono::duration<double>(ended - began).count();
    if (end.nSignal != 0) {
        std::printf("The child process was ended by signal %d (%s)\n", end.nSignal, strsignal(end.nSignal));
    }
    return end;
}

void ExpectChildPasses(const std::function<void()>& fnBody, Exit exit) {
    const ChildEnd end = RunChild(fnBody, exit);
    EXPECT_TRUE(end.Passed()) << "exit status " << end.nStatus << ", signal " << end.nSignal;
}

void ExpectSuccess(const std::vector<pid_t>& children) {
    for (const pid_t nChild : children) {
        int nStatus = -1;
        EXPECT_EQ(waitpid(nChild, &nStatus, 0), nChild);
        EXPECT_EQ(nStatus, 0);
    }
}
