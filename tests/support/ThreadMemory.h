// Lets the memory for thread-specific values run out, in programs linked with --wrap=pthread_setspecific and
// ThreadMemory.cpp. Only the program's own objects are affected, no shared library.
#pragma once

// True: pthread_setspecific fails on this thread.
extern thread_local bool t_fNoThreadMemory;
