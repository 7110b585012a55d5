// Simulates that memory for thread-specific values runs out, in programs linked with --wrap=pthread_setspecific and
// ThreadMemory.cpp. It affects only the program's own objects and no shared library.
#pragma once

// True: pthread_setspecific fails on this thread.
extern thread_local bool t_fNoThreadMemory;
