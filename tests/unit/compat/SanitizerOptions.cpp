// Under a sanitizer an allocation that is too large returns null, as with libc, and does not end the program.

extern "C" const char* __asan_default_options();
extern "C" const char* __tsan_default_options();

extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}

// Without this, ThreadSanitizer waits a second for further reports at each process's end.
extern "C" const char* __tsan_default_options() {
    return "allocator_may_return_null=1:atexit_sleep_ms=0";
}
