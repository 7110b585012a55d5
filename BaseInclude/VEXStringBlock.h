// The data block behind CString and CStringA: header, field access, allocation.
//
//   m_pchData of every string that shares the block ----------------+
//                                                                   v
//   +-------+-------------+--------------+------------------------+-------------------------------+---+
//   | nRefs | nDataLength | nAllocLength | cslock                 | nAllocLength characters       | 0 |
//   +-------+-------------+--------------+------------------------+-------------------------------+---+
//   0       8             12             16                       56
//
// A block belongs to one thread at a time, with one exception: each kind of string has one empty block in the process.
// The strings of all threads point at it and stamp it (VEXStampField). So fields are read and written atomically.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstring>
#include <new>

#include "VEXAtomicField.h"
#include "VEXType.h"

struct lockid_t {
    pthread_mutex_t lock;
};

// The number of ints in an empty block.
inline constexpr std::size_t VEX_EMPTY_BLOCK_INTS = 8197;

// Writes a field of the empty block, unless it has the value already, as it nearly always does. That keeps the block's
// cache line shared between threads, and avoids a race with callers that read an empty text with plain accesses.
template <typename TField>
void VEXStampField(TField& field, TField value) {
    if (VEXLoadField(field) != value) {
        VEXStoreField(field, value);
    }
}

// A new block with room for nLen characters and the terminator, all set to 0. It has one owner; cslock stays
// uninitialised. Throws std::bad_alloc.
template <typename TData, typename TChar>
TData* VEXNewBlock(int nLen) {
    const std::size_t nChars = static_cast<std::size_t>(nLen) + 1;
    TData* const pData = ::new (static_cast<void*>(new BYTE[sizeof(TData) + nChars * sizeof(TChar)])) TData;
    VEXStoreField(pData->nRefs, 1L);
    VEXStoreField(pData->nDataLength, nLen);
    VEXStoreField(pData->nAllocLength, nLen);
    std::memset(pData->data(), 0, nChars * sizeof(TChar));
    return pData;
}

template <typename TData>
void VEXDeleteBlock(TData* pData) {
    delete[] reinterpret_cast<BYTE*>(pData);
}

// Releases one share of a block, which must not be the empty one, and frees the block after the last share. A negative
// count does not change. TRUE: freed.
template <typename TData>
BOOL VEXReleaseBlock(TData* pData) {
    const long nRefs = VEXLoadField(pData->nRefs);
    if (nRefs > 0) {
        VEXStoreField(pData->nRefs, nRefs - 1);
    }
    if (VEXLoadField(pData->nRefs) != 0) {
        return FALSE;
    }
    VEXDeleteBlock(pData);
    return TRUE;
}
