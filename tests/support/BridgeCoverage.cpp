// The same as ToolkitCoverage.cpp for the bridge's library.
extern "C" void __gcov_dump();
extern "C" __attribute__((visibility("default"))) void VexTestDumpBridgeCoverage();

void VexTestDumpBridgeCoverage() {
    __gcov_dump();
}
