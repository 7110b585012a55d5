// After the first accept, one allocation fails: the one whose number is in VEX_TEST_FAILING_ALLOCATION. For LD_PRELOAD.
#include <dlfcn.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>

extern "C" void* __libc_malloc(std::size_t cb);  // NOLINT(bugprone-reserved-identifier): libc's own

namespace {

int s_nUntilFailure = 0;  // 0: none fails
bool s_bAccepted = false;

void CountFromNowOn() {
    const char* const pszNumber = std::getenv("VEX_TEST_FAILING_ALLOCATION");
    if (!s_bAccepted && pszNumber != nullptr) {
        s_nUntilFailure = std::atoi(pszNumber);
    }
    s_bAccepted = true;
}

}  // namespace

extern "C" {

void* malloc(std::size_t cb) {
    if (s_nUntilFailure > 0 && --s_nUntilFailure == 0) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(cb);
}

int accept(int nListener, sockaddr* pAddress, socklen_t* pcbAddress) {
    static auto* const s_pNext = reinterpret_cast<decltype(&accept)>(dlsym(RTLD_NEXT, "accept"));
    const int nSocket = s_pNext(nListener, pAddress, pcbAddress);
    if (nSocket >= 0) {
        CountFromNowOn();
    }
    return nSocket;
}

}  // extern "C"
