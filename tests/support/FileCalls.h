// The toolkit's file functions as the log calls them: a program with FileCalls.cpp sees every call before it reaches
// the toolkit. Any thread.
#pragma once

#include <functional>
#include <string_view>

namespace file_calls {

struct Call {
    std::string_view function;   // "WriteFile"
    std::string_view data = {};  // what WriteFile was given
};

// Runs before each call, on the thread that makes it; to be set while nothing is logged. Also in a process forked
// later.
void Watch(std::function<void(const Call&)> fnBefore);

// The calls of a function so far that have returned.
int Count(std::string_view function);

// Returns when there have been so many in all; ends the program after twenty seconds without them.
void WaitFor(std::string_view function, int nCount);

}  // namespace file_calls
