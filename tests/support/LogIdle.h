// When the log's writer has nothing more to do. A program with LogIdle.cpp sees each post of a semaphore and each wait
// for one, which in the libraries at hand are the log's alone. Any thread; also in a process forked before anything was
// logged.
#pragma once

namespace log_idle {

// Returns when the writer waits for its next record and there is none; ends the program after twenty seconds.
void Wait();

}  // namespace log_idle
