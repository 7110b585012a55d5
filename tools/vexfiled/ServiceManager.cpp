#include "ServiceManager.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "Text.h"

namespace vexfiled {
namespace {

constexpr int kFirstPassed = 3;

// The variable's number; 0 if it is not set or not a number.
long NumberIn(const char* pszVariable) {
    const char* const pszValue = std::getenv(pszVariable);
    long nValue = 0;
    if (pszValue != nullptr) {
        std::from_chars(pszValue, pszValue + std::strlen(pszValue), nValue);
    }
    return nValue;
}

int Option(int nSocket, int nOption) {
    int nValue = -1;
    socklen_t cb = sizeof nValue;
    return getsockopt(nSocket, SOL_SOCKET, nOption, &nValue, &cb) == 0 ? nValue : -1;
}

}  // namespace

std::optional<PassedSocket> TakePassedSocket() {
    const bool bForUs = NumberIn("LISTEN_PID") == getpid();
    const long cPassed = NumberIn("LISTEN_FDS");
    unsetenv("LISTEN_PID");
    unsetenv("LISTEN_FDS");
    unsetenv("LISTEN_FDNAMES");
    if (!bForUs || cPassed <= 0) {
        return std::nullopt;
    }
    if (cPassed != 1) {
        throw std::runtime_error(
            Text("the service manager has passed ", cPassed, " sockets; leave one ListenStream= in the socket unit"));
    }
    PassedSocket passed{vexposix::FileDescriptor(kFirstPassed), 0};
    fcntl(kFirstPassed, F_SETFD, FD_CLOEXEC);
    sockaddr_in address{};
    socklen_t cbAddress = sizeof address;
    if (getsockname(kFirstPassed, reinterpret_cast<sockaddr*>(&address), &cbAddress) != 0 ||
        address.sin_family != AF_INET || address.sin_addr.s_addr != htonl(INADDR_LOOPBACK) ||
        Option(kFirstPassed, SO_TYPE) != SOCK_STREAM || Option(kFirstPassed, SO_ACCEPTCONN) != 1) {
        throw std::runtime_error(
            "the service manager's socket does not listen on 127.0.0.1; the socket unit needs "
            "ListenStream=127.0.0.1:PORT"
            " and Accept=no");
    }
    passed.uPort = ntohs(address.sin_port);
    return passed;
}

int TellServiceManager(const std::string& strLines) {
    const char* const pszPath = std::getenv("NOTIFY_SOCKET");
    if (pszPath == nullptr) {
        return 0;
    }
    const std::string_view strPath = pszPath;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (strPath.size() < 2 || strPath.size() >= sizeof address.sun_path || (strPath[0] != '/' && strPath[0] != '@')) {
        return EINVAL;
    }
    std::memcpy(address.sun_path, strPath.data(), strPath.size());
    if (strPath[0] == '@') {
        address.sun_path[0] = '\0';  // the abstract namespace
    }
    const vexposix::FileDescriptor descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto cbAddress = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strPath.size());
    if (!descriptor.IsOpen() || sendto(descriptor.Get(), strLines.data(), strLines.size(), MSG_NOSIGNAL,
                                       reinterpret_cast<const sockaddr*>(&address), cbAddress) < 0) {
        return errno;
    }
    return 0;
}

}  // namespace vexfiled
