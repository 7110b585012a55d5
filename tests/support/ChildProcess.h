// A piece of a test in a process of its own. What it prints appears with the test's output, and failures of
// GoogleTest's macros in it count.
#pragma once

#include <sys/types.h>

#include <functional>
#include <vector>

struct ChildEnd {
    int nStatus = -1;       // exit status; -1 when a signal ended it
    int nSignal = 0;        // that signal
    double dSeconds = 0.0;  // from its body's return, or its start when it never returned, to its end

    bool Passed() const { return nStatus == 0; }
};

enum class Exit {
    kAtOnce,    // without exit handlers, which with a log take a second
    kByReturn,  // as from main: the exit handlers run
};

// To be called by a process with one thread. A child that hangs is ended by SIGALRM after two minutes.
ChildEnd RunChild(const std::function<void()>& fnBody, Exit exit = Exit::kAtOnce);

// Waits for children that the test has forked; each has to end with status 0.
void ExpectSuccess(const std::vector<pid_t>& children);

// In a build that measures coverage, before a process ends at once: what it has executed counts.
void NoteCoverage();

// Ends a child the quick way, with the result that its test macros gave it.
[[noreturn]] void EndChildAtOnce();
