// A disk that stalls: a thread that writes to the log's file creates a file "stalled" in the log's directory and then
// waits for ever. For LD_PRELOAD, together with the private_log library.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <string>
#include <string_view>

#include "SystemCalls.h"

namespace {

std::string PathOf(int nDescriptor) {
    std::array<char, 4096> path{};
    const ssize_t cch = readlink(("/proc/self/fd/" + std::to_string(nDescriptor)).c_str(), path.data(), path.size());
    return std::string(path.data(), cch > 0 ? static_cast<std::size_t>(cch) : 0);
}

Outcome Decide(const system_calls::Call& call) {
    constexpr std::string_view kLog = "/PILog.txt";
    std::string strPath = call.pszName == std::string_view("pwrite") ? PathOf(call.nDescriptor) : "";
    if (!strPath.ends_with(kLog)) {
        return kReal;
    }
    strPath.replace(strPath.size() - kLog.size(), kLog.size(), "/stalled");
    close(open(strPath.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    for (;;) {
        pause();
    }
}

[[gnu::constructor]] void Begin() {
    system_calls::g_pDecide = Decide;
}

}  // namespace
