// Chooses the mutant of this process. Included by the sources that scripts/mutate writes.
//
//   VEX_MUTANT         the number of the mutant to run; without it the program behaves as written
//   VEX_MUTANT_RECORD  a file in which each mutant has one byte, which is set when its code is executed
//
// May be used before main, in signal handlers and after fork. It uses system calls directly, because tests replace
// functions of libc.
#pragma once

#include <asm/unistd.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>

#if !defined(__x86_64__)
#include <unistd.h>
#endif

namespace vexmutant {

inline constexpr int kUnread = -1;
inline int g_nChosen = kUnread;
inline unsigned char* g_pMarks = nullptr;
inline long g_nMarks = 0;

inline long Call(long nNumber, long a, long b = 0, long c = 0, long d = 0, long e = 0, long f = 0) noexcept {
#if defined(__x86_64__)
    long nResult = nNumber;
    register long r10 __asm__("r10") = d;
    register long r8 __asm__("r8") = e;
    register long r9 __asm__("r9") = f;
    __asm__ volatile("syscall"
                     : "+a"(nResult)
                     : "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8), "r"(r9)
                     : "rcx", "r11", "memory");
    return nResult;
#else
    const int nErrno = errno;
    const long nResult = syscall(nNumber, a, b, c, d, e, f);
    errno = nErrno;
    return nResult;
#endif
}

// Two threads may do this at the same time; they read the same.
inline void Read() noexcept {
    const char* const pszRecord = getenv("VEX_MUTANT_RECORD");
    if (pszRecord != nullptr) {
        const long nFile = Call(__NR_openat, AT_FDCWD, reinterpret_cast<long>(pszRecord), O_RDWR | O_CLOEXEC);
        if (nFile >= 0) {
            const long nSize = Call(__NR_lseek, nFile, 0, 2);
            const long nMap = nSize <= 0 ? -1 : Call(__NR_mmap, 0, nSize, PROT_READ | PROT_WRITE, MAP_SHARED, nFile, 0);
            if (nMap > 0) {
                g_nMarks = nSize;
                __atomic_store_n(&g_pMarks, reinterpret_cast<unsigned char*>(nMap), __ATOMIC_RELEASE);
            }
            Call(__NR_close, nFile);
        }
    }
    const char* const pszChosen = getenv("VEX_MUTANT");
    int nChosen = 0;
    for (const char* p = pszChosen; p != nullptr && *p >= '0' && *p <= '9'; ++p) {
        nChosen = nChosen * 10 + (*p - '0');
    }
    __atomic_store_n(&g_nChosen, nChosen, __ATOMIC_RELEASE);
}

inline bool Choose(int nMutant) noexcept {
    int nChosen = __atomic_load_n(&g_nChosen, __ATOMIC_ACQUIRE);
    if (nChosen == kUnread) {
        Read();
        nChosen = __atomic_load_n(&g_nChosen, __ATOMIC_ACQUIRE);
    }
    unsigned char* const pMarks = __atomic_load_n(&g_pMarks, __ATOMIC_ACQUIRE);
    if (pMarks != nullptr && nMutant < g_nMarks) {
        __atomic_store_n(pMarks + nMutant, 1, __ATOMIC_RELAXED);
    }
    return nChosen == nMutant;
}

}  // namespace vexmutant

inline bool vexMutant(int nMutant) noexcept {
    return vexmutant::Choose(nMutant);
}

constexpr bool vexMutantInConstexpr(int nMutant) noexcept {
    return __builtin_is_constant_evaluated() ? false : vexmutant::Choose(nMutant);
}
