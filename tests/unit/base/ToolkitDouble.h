// A substitute for the compatibility functions that the base headers call, with switches for what toolkits may do.
#pragma once

#include <cstddef>
#include <vector>

#include "VEXCompat.h"

struct ToolkitDouble {
    // Text conversion
    bool bCountsTerminator = true;  // in its results, if there is room for it
    int nForcedResult = 0;          // unless 0: returned instead of the true result; the output is then not written
    bool bWritesHalf = false;       // converts the first half of the text only
    int nForcedLength = 0;          // unless 0: lstrlenW's result

    // The arguments of the last conversion.
    UINT uCodePage = ~0U;
    DWORD dwFlags = ~DWORD{0};
    int nSourceLength = 0;
    int nRoom = 0;
    bool bDefaultsGiven = false;

    // Heap
    int nAllocationsLeft = -1;  // HeapAlloc and HeapReAlloc fail when it is 0; below 0: never
    DWORD dwMargin = 0;         // bytes before and after each block, for the test to use
    struct HeapCall {
        char chCall;  // Alloc, Reallocate, Free, Size
        DWORD dwFlags;
        bool bProcessHeap;
    };
    std::vector<HeapCall> heapCalls;

    std::size_t LiveBlocks() const;
    // Frees leaked blocks, too.
    void FreeAll();
};

// One per program. Resetting it frees all blocks.
ToolkitDouble& Double();
void ResetDouble();
