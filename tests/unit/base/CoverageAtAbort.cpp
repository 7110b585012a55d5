// Writes the coverage counts of a process that an assertion ends. Otherwise they would be lost.
#include <csignal>

extern "C" void __gcov_dump();

namespace {

void DumpAndAbort(int nSignal) {
    __gcov_dump();
    std::signal(nSignal, SIG_DFL);
    std::raise(nSignal);
}

[[maybe_unused]] const auto s_pfnBefore = std::signal(SIGABRT, DumpAndAbort);

}  // namespace
