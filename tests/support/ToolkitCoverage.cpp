// Part of the toolkit's library when it is instrumented: each library notes what it has executed itself, and a process
// that ends at once has to ask for it.
extern "C" void __gcov_dump();
extern "C" __attribute__((visibility("default"))) void VexTestDumpToolkitCoverage();

void VexTestDumpToolkitCoverage() {
    __gcov_dump();
}
