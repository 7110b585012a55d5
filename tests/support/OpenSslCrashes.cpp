#include "OpenSslCrashes.h"

#if defined(__SANITIZE_ADDRESS__)

void CatchOpenSslCrashes() {}

#else

#include <dlfcn.h>
#include <signal.h>
#include <ucontext.h>
#include <unistd.h>

#include <string_view>

#include "ChildProcess.h"
#include "FaultPoints.h"

namespace {

// Whether the address of an instruction, given by the kernel, is in libcrypto.
bool IsInOpenSsl(greg_t nAddress) {
    Dl_info info{};
    const void* const pInstruction = reinterpret_cast<const void*>(nAddress);  // NOLINT(performance-no-int-to-ptr)
    return dladdr(pInstruction, &info) != 0 && info.dli_fname != nullptr &&
           std::string_view(info.dli_fname).find("libcrypto") != std::string_view::npos;
}

void EndQuietly(int, siginfo_t*, void* pContext) {
    const auto* const pMachine = &static_cast<const ucontext_t*>(pContext)->uc_mcontext;
    // The crash can also be in libc, called by OpenSSL with a null pointer for a lock.
    const auto* const pStack = reinterpret_cast<const greg_t*>(pMachine->gregs[REG_RSP]);  // NOLINT
    if (IsInOpenSsl(pMachine->gregs[REG_RIP]) || IsInOpenSsl(*pStack)) {
        fault_points::Disarm();
        NoteCoverage();
        _exit(kOpenSslCrash);
    }
}

}  // namespace

void CatchOpenSslCrashes() {
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO | SA_RESETHAND;
    action.sa_sigaction = EndQuietly;
    sigaction(SIGSEGV, &action, nullptr);
}

#endif
