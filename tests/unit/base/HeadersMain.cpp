// Two translation units that include every header of BaseInclude link into one program and share one empty block of
// each kind of string. This file checks the blocks before the first string exists.
#include <algorithm>
#include <cstdio>
#include <iterator>

#include "VEXCstring.h"

struct EmptyBlocks {
    const void* pWide;
    const void* pNarrow;
};

EmptyBlocks EmptyBlocksSeenFirst();
EmptyBlocks EmptyBlocksSeenSecond();

namespace {

bool IsUntouched(const int (&rgInit)[VEX_EMPTY_BLOCK_INTS]) {
    return rgInit[0] == -1 && std::all_of(rgInit + 1, std::end(rgInit), [](int n) { return n == 0; });
}

}  // namespace

int main() {
    if (!IsUntouched(rgInitData) || !IsUntouched(rgInitDataA)) {
        std::fputs("an empty block does not start as -1 and zeros\n", stderr);
        return 1;
    }
    const EmptyBlocks first = EmptyBlocksSeenFirst();
    const EmptyBlocks second = EmptyBlocksSeenSecond();
    if (first.pWide != second.pWide || first.pNarrow != second.pNarrow || first.pWide != _atltmpPchNil ||
        first.pNarrow != _atltmpPchNilA) {
        std::fputs("an empty block has two addresses\n", stderr);
        return 1;
    }
    return 0;
}
