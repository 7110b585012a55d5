// Part of the toolkit's library when it is instrumented. Each library writes its own coverage, and a process that ends
// without exit handlers has to ask for it.
extern "C" void __gcov_dump();
extern "C" __attribute__((visibility("default"))) void VexTestDumpToolkitCoverage();

void VexTestDumpToolkitCoverage() {
    __gcov_dump();
}
