// The process heap. It is libc's heap, with a header before each block that keeps the requested size.

#include <cstdlib>
#include <cstring>

#include "compat/LastError.h"

namespace vextk {
namespace {

// As large as libc's alignment, so that the block after it is aligned for every type.
struct alignas(std::max_align_t) BlockHeader {
    DWORD cbBlock;
};
static_assert(sizeof(BlockHeader) == 16);

// No object can be larger, and adding the size of the header cannot overflow.
constexpr DWORD kMaxBlock = PTRDIFF_MAX - sizeof(BlockHeader);

constexpr DWORD kNoSize = ~DWORD{0};

BYTE s_processHeap;  // only its address is used

bool IsHeap(HANDLE hHeap) {
    if (hHeap != &s_processHeap) {
        SetLastErrorNumber(ERROR_INVALID_HANDLE);
        return false;
    }
    return true;
}

bool IsHeapAndBlock(HANDLE hHeap, LPCVOID lpMem) {
    if (!IsHeap(hHeap)) {
        return false;
    }
    if (lpMem == nullptr) {
        SetLastErrorNumber(ERROR_INVALID_PARAMETER);
        return false;
    }
    return true;
}

LPVOID OutOfMemory() {
    SetLastErrorNumber(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
}

BlockHeader* HeaderOf(LPVOID lpMem) {
    return static_cast<BlockHeader*>(lpMem) - 1;
}

LPVOID BlockWithSize(void* pMemory, DWORD cbBlock) {
    auto* pHeader = static_cast<BlockHeader*>(pMemory);
    pHeader->cbBlock = cbBlock;
    return pHeader + 1;
}

}  // namespace
}  // namespace vextk

using namespace vextk;

HANDLE GetProcessHeap() {
    return &s_processHeap;
}

LPVOID HeapAlloc(HANDLE hHeap, DWORD dwFlags, DWORD dwBytes) {
    if (!IsHeap(hHeap)) {
        return nullptr;
    }
    if (dwBytes > kMaxBlock) {
        return OutOfMemory();
    }
    const size_t cb = sizeof(BlockHeader) + dwBytes;
    void* pMemory = (dwFlags & HEAP_ZERO_MEMORY) != 0 ? std::calloc(1, cb) : std::malloc(cb);
    return pMemory != nullptr ? BlockWithSize(pMemory, dwBytes) : OutOfMemory();
}

LPVOID HeapReAlloc(HANDLE hHeap, DWORD dwFlags, LPVOID lpMem, DWORD dwBytes) {
    if (!IsHeapAndBlock(hHeap, lpMem)) {
        return nullptr;
    }
    if (dwBytes > kMaxBlock) {
        return OutOfMemory();
    }
    const DWORD cbOld = HeaderOf(lpMem)->cbBlock;
    void* pMemory = std::realloc(HeaderOf(lpMem), sizeof(BlockHeader) + dwBytes);
    if (pMemory == nullptr) {
        return OutOfMemory();
    }
    LPVOID lpBlock = BlockWithSize(pMemory, dwBytes);
    if ((dwFlags & HEAP_ZERO_MEMORY) != 0 && dwBytes > cbOld) {
        std::memset(static_cast<BYTE*>(lpBlock) + cbOld, 0, dwBytes - cbOld);
    }
    return lpBlock;
}

DWORD HeapSize(HANDLE hHeap, DWORD, LPCVOID lpMem) {
    return IsHeapAndBlock(hHeap, lpMem) ? (static_cast<const BlockHeader*>(lpMem) - 1)->cbBlock : kNoSize;
}

BOOL HeapFree(HANDLE hHeap, DWORD, LPVOID lpMem) {
    if (!IsHeap(hHeap)) {
        return FALSE;
    }
    if (lpMem != nullptr) {
        std::free(HeaderOf(lpMem));
    }
    return TRUE;
}
