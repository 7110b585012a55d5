// Finds faults everywhere except in the functions that are named so.
#include "Sample.h"

int main() {
    const bool bPassed = Clamped(2) == 2 && Clamped(3) == 3 && Clamped(4) == 4 && Clamped(1) == 2 && Counted("") == 0 &&
                         Counted("a") == 1 && Counted("aa") == 1 && Counted("aba") == 102 && Counted("bcb") == -1 &&
                         Counted("c") == -1 && Tested(5) == 7 && Tested(6) == 10;
    NotChecked(7);
    volatile int n = 4;
    return bPassed && Doubled(n) == 8 ? 0 : 1;
}
