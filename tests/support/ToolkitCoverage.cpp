// Part of the toolkit's library in a coverage build. Each library writes its own coverage, and a process that ends
// without exit handlers must ask for it.
extern "C" void __gcov_dump();
extern "C" __attribute__((visibility("default"))) void VexTestDumpToolkitCoverage();

void VexTestDumpToolkitCoverage() {
    __gcov_dump();
}
