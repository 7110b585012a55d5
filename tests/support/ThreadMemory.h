// The want of memory for what belongs to a thread, in programs that are linked with --wrap=pthread_setspecific and
// ThreadMemory.cpp: what they are linked from then calls the tests' function, and no library does.
#pragma once

// Of the calling thread: pthread_setspecific fails.
extern thread_local bool t_fNoThreadMemory;
