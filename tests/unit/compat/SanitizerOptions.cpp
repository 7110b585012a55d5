// Under a sanitizer an allocation that is too large is to fail as libc's does, not to end the program.

extern "C" const char* __asan_default_options();
extern "C" const char* __tsan_default_options();

extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}

// Nor is each end of a process to take a second, in which ThreadSanitizer would wait for more to see.
extern "C" const char* __tsan_default_options() {
    return "allocator_may_return_null=1:atexit_sleep_ms=0";
}
