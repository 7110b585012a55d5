// Tells when the log's writer has nothing more to do. LogIdle.cpp intercepts the posts of semaphores and the waits for
// them; in these libraries only the log uses semaphores. Any thread; also in a process forked before the first record.
#pragma once

namespace log_idle {

// Returns when the writer waits and no record is queued. Ends the program after twenty seconds.
void Wait();

}  // namespace log_idle
