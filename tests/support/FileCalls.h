// Watches the log's calls of the toolkit's file functions, which FileCalls.cpp intercepts. Any thread.
#pragma once

#include <functional>
#include <string_view>

namespace file_calls {

struct Call {
    std::string_view function;   // "WriteFile"
    std::string_view data = {};  // the bytes for WriteFile
};

// Sets a function that runs before each call, on the caller's thread, also in processes forked later. Call it while
// nothing is logged.
void Watch(std::function<void(const Call&)> fnBefore);

// The number of calls of a function that have returned.
int Count(std::string_view function);

// Returns when nCount calls of the function have returned. Ends the program after twenty seconds without one.
void WaitFor(std::string_view function, int nCount);

}  // namespace file_calls
