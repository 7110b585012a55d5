// Copies that never write beyond the destination's size. Source and destination may overlap.

#include <cerrno>
#include <cstring>
#include <cwchar>

#include "VEXCompat.h"

int wcscpy_s(LPWSTR pszDest, size_t cchDest, LPCWSTR pszSrc) {
    if (pszDest == nullptr) {
        return EINVAL;
    }
    if (cchDest == 0) {
        return ERANGE;
    }
    if (pszSrc == nullptr) {
        pszDest[0] = L'\0';
        return EINVAL;
    }
    const size_t cch = wcsnlen(pszSrc, cchDest);
    if (cch == cchDest) {
        pszDest[0] = L'\0';
        return ERANGE;
    }
    std::wmemmove(pszDest, pszSrc, cch + 1);
    return 0;
}

int memcpy_x(void* pDest, size_t cbDest, const void* pSrc, size_t cbCount) {
    if (cbCount == 0) {
        return 0;
    }
    if (pDest == nullptr) {
        return EINVAL;
    }
    if (pSrc == nullptr || cbCount > cbDest) {
        // A caller that ignores the result finds zeroes, not old data.
        std::memset(pDest, 0, cbDest);
        return pSrc == nullptr ? EINVAL : ERANGE;
    }
    std::memmove(pDest, pSrc, cbCount);
    return 0;
}
