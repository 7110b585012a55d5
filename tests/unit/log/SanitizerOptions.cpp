// By default ThreadSanitizer ends a forked child that starts threads if its parent had threads; the log does so on
// purpose. It also waits a second at each exit for late reports; the log's own second is enough.

extern "C" const char* __tsan_default_options();

extern "C" const char* __tsan_default_options() {
    return "die_after_fork=0:atexit_sleep_ms=0";
}
