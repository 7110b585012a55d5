// Assertions that stay on in every build type.
//
// A broken invariant prints the C library's standard assertion message (program, source file, line, function signature,
// expression) on standard error and aborts the process. The caller passes line and signature as constants: people
// search reports for them, so they must not change when lines move.
#pragma once

// <cassert> declares it only when NDEBUG is not defined.
extern "C" void __assert_fail(const char* pszExpression, const char* pszFile, unsigned int nLine,
                              const char* pszFunction) noexcept __attribute__((__noreturn__));

// Any thread. Does not return when bHolds is false.
inline void VEXAssert(bool bHolds, const char* pszExpression, const char* pszFile, unsigned int nLine,
                      const char* pszFunction) {
    if (!bHolds) {
        __assert_fail(pszExpression, pszFile, nLine, pszFunction);
    }
}
