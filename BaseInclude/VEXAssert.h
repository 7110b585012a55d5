// Assertions that stay on in every build type.
//
// A broken invariant prints the C library's standard assertion message (program, source file, line, function signature,
// expression) on the standard error stream and aborts the process. Line and signature are handed in, not taken from
// where the check stands: they are what people search for in reports, so they must not change with the file's layout.
#pragma once

// <cassert> declares it only where NDEBUG is not defined.
extern "C" void __assert_fail(const char* pszExpression, const char* pszFile, unsigned int nLine,
                              const char* pszFunction) noexcept __attribute__((__noreturn__));

// Any thread. Does not return when bHolds is false.
inline void VEXAssert(bool bHolds, const char* pszExpression, const char* pszFile, unsigned int nLine,
                      const char* pszFunction) {
    if (!bHolds) {
        __assert_fail(pszExpression, pszFile, nLine, pszFunction);
    }
}
