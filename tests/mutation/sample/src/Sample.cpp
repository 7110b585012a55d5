#include "Sample.h"

namespace {

int s_nCalls = 0;

void Count() {
    ++s_nCalls;
}

}  // namespace

int Clamped(int n) {
    if (n < kLeast) {
        return kLeast - 1;
    }
    return n;
}

// 'a' counts once, 'b' each time and a hundred more. -1: there is another character.
int Counted(const char* pszText) {
    const char* const pszKnown = "ab";
    int anKinds[1 + 1] = {};
    bool bFirst = true;
    int nPlaces = 0;
    for (const char* p = pszText; *p != '\0'; ++p) {
        switch (*p - *pszKnown) {
            case 1 - 1:
                if (!bFirst) {
                    break;
                }
                bFirst = false;
                ++nPlaces;
                break;
            case 2 - 1:
                anKinds[1] = 1;
                ++nPlaces;
                break;
            default:
                return -1;
        }
    }
    return nPlaces + anKinds[1] * 100;
}

// It has no value of its own, so a mutant without this call does not compile.
Exact Wrapped(int n) {
    return Exact(n);
}

int Tested(int n) {
    Count();
    const int nResult = Clamped(Wrapped(n).Value()) + SAMPLE_TWICE(s_nCalls);
    return nResult;
}

int NotChecked(int n) {
    return n == 7 ? 1 : 2;
}

int NotExecuted(int n) {
    return n - 1;
}
