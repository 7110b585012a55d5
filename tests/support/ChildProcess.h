// Runs a part of a test in a child process. Its output appears with the test's output, and its failed expectations
// count.
#pragma once

#include <sys/types.h>

#include <functional>
#include <vector>

struct ChildEnd {
    int nStatus = -1;       // exit status; -1 when a signal ended it
    int nSignal = 0;        // that signal
    double dSeconds = 0.0;  // from the body's return (or the child's start, if it never returned) to its end

    bool Passed() const { return nStatus == 0; }
};

enum class Exit {
    kAtOnce,    // without exit handlers: the log's handler takes a second
    kByReturn,  // like a return from main: the exit handlers run
};

// Only for a process with one thread. SIGALRM ends a child that hangs for two minutes.
ChildEnd RunChild(const std::function<void()>& fnBody, Exit exit = Exit::kAtOnce);
void ExpectChildPasses(const std::function<void()>& fnBody, Exit exit = Exit::kAtOnce);

// Waits for the children and expects that each ends with status 0.
void ExpectSuccess(const std::vector<pid_t>& children);

// For a process that ends without exit handlers: writes its coverage in a build that measures it.
void NoteCoverage();

// Ends a child without exit handlers. The status is not 0 when an expectation failed.
[[noreturn]] void EndChildAtOnce();
