// Waits until the log's writer is idle. LogIdle.cpp intercepts posts of semaphores and waits for them. In these
// libraries only the log uses semaphores. Any thread; also in a process forked before the first record.
#pragma once

namespace log_idle {

// Returns when the writer waits and no record is queued. Ends the program after twenty seconds.
void Wait();

}  // namespace log_idle
