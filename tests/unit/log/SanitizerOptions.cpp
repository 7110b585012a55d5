// ThreadSanitizer ends a child process that starts threads when its parent had some, which the log does on purpose. It
// also waits a second at each process's end, for reports that the log's own second leaves room for.

extern "C" const char* __tsan_default_options();

extern "C" const char* __tsan_default_options() {
    return "die_after_fork=0:atexit_sleep_ms=0";
}
