// A growable block of bytes on the heap of the process. For one thread at a time.
//
// The buffer stores no length: its size is the size that the heap reports for the block. There is no spare capacity;
// every append reallocates. New bytes are 0. Sizes are in bytes.
//
// Nothing throws. A null result means that the buffer is empty: 0 bytes were requested, or memory ran out. When a
// reallocation fails, the buffer is empty and the old block is leaked.
#pragma once

#include <cstdint>
#include <cstring>
#include <limits>

#include "VEXCompat.h"
#include "VEXType.h"

// The order of the operations is the order of their slots in the virtual table. Never delete an object through IBuffer.
class IBuffer {
public:
    // Discards the contents. Returns the new block, or null.
    virtual void* Alloc(DWORD dwSize) = 0;
    // Keeps the contents up to the smaller size. Returns the block, or null.
    virtual void* ReAlloc(DWORD dwSize) = 0;
    virtual void Free() = 0;
    // Adds a copy of dwSize bytes at the end; nothing for null or 0 bytes. Returns the block, or null.
    // The bytes may be part of the buffer.
    virtual void* AppendBuffer(const void* pBuffer, DWORD dwSize) = 0;
    // Replaces the contents by a copy of dwSize bytes. Returns the block, or null.
    // The bytes may be part of the buffer; those beyond its end count as 0. For null it only resizes, as ReAlloc.
    virtual void* SetBuffer(const void* pBuffer, DWORD dwSize) = 0;
    // Copies out the smaller of dwSize and the buffer's size, and returns that number. Copies nothing and returns 0 for
    // null, for an empty buffer, and if pBuffer is less than the buffer's size before or after the buffer's start.
    virtual DWORD GetBuffer(void* pBuffer, DWORD dwSize) const = 0;
    virtual DWORD GetSize() const = 0;
    // The block; null when empty. It belongs to the buffer and is valid until the buffer changes.
    virtual void* GetAddress() const = 0;
    virtual BYTE* GetBytes() const = 0;

protected:
    ~IBuffer() = default;
};

// The operations call each other through the virtual table: overriding Alloc, ReAlloc, Free or GetSize changes the
// others, too.
class CSmartBuffer : public IBuffer {
public:
    CSmartBuffer() : m_pBuffer(nullptr) {}
    CSmartBuffer(const CSmartBuffer& objSmartBuffer) : IBuffer(objSmartBuffer), m_pBuffer(nullptr) {
        if (objSmartBuffer.m_pBuffer != nullptr) {
            SetBuffer(objSmartBuffer.m_pBuffer, HeapSize(GetProcessHeap(), 0, objSmartBuffer.m_pBuffer));
        }
    }
    explicit CSmartBuffer(DWORD dwSize) : m_pBuffer(nullptr) { Alloc(dwSize); }
    CSmartBuffer(const void* pBuffer, DWORD dwSize) : m_pBuffer(nullptr) { SetBuffer(pBuffer, dwSize); }

    void* Alloc(DWORD dwSize) override {
        Free();
        if (dwSize == 0) {
            return nullptr;
        }
        m_pBuffer = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, dwSize);
        return m_pBuffer;
    }

    void* ReAlloc(DWORD dwSize) override {
        if (m_pBuffer == nullptr) {
            return Alloc(dwSize);
        }
        if (dwSize == 0) {
            Free();
            return nullptr;
        }
        m_pBuffer = HeapReAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, m_pBuffer, dwSize);
        return m_pBuffer;
    }

    void Free() override {
        if (m_pBuffer != nullptr) {
            HeapFree(GetProcessHeap(), 0, m_pBuffer);
            m_pBuffer = nullptr;
        }
    }

    void* AppendBuffer(const void* pBuffer, DWORD dwSize) override {
        if (pBuffer == nullptr || dwSize == 0) {
            return m_pBuffer;
        }
        const DWORD dwOldSize = GetSize();
        const bool bOwnBytes = Holds(pBuffer, dwOldSize);
        const DWORD dwOffset = Distance(pBuffer);
        // A sum that overflows becomes the largest size, which the heap refuses.
        const DWORD dwMost = std::numeric_limits<DWORD>::max();
        ReAlloc(dwSize > dwMost - dwOldSize ? dwMost : dwOldSize + dwSize);
        const DWORD dwNewSize = GetSize();
        if (m_pBuffer != nullptr && dwNewSize >= dwSize) {
            // The block may have moved, and the bytes to append with it.
            const void* const pSource = bOwnBytes ? GetBytes() + dwOffset : pBuffer;
            std::memmove(GetBytes() + (dwNewSize - dwSize), pSource, dwSize);
        }
        return m_pBuffer;
    }

    void* SetBuffer(const void* pBuffer, DWORD dwSize) override {
        const DWORD dwOldSize = GetSize();
        if (pBuffer == m_pBuffer && dwOldSize == dwSize) {
            return m_pBuffer;
        }
        const bool bOwnBytes = Holds(pBuffer, dwOldSize);
        if (bOwnBytes) {
            // Move the bytes to the front before the reallocation moves or cuts the block.
            const DWORD dwOffset = Distance(pBuffer);
            const DWORD dwPresent = dwSize < dwOldSize - dwOffset ? dwSize : dwOldSize - dwOffset;
            std::memmove(m_pBuffer, pBuffer, dwPresent);
            std::memset(GetBytes() + dwPresent, 0, dwOldSize - dwPresent);
        }
        ReAlloc(dwSize);
        if (m_pBuffer != nullptr && pBuffer != nullptr && !bOwnBytes) {
            std::memcpy(m_pBuffer, pBuffer, dwSize);
        }
        return m_pBuffer;
    }

    DWORD GetBuffer(void* pBuffer, DWORD dwSize) const override {
        if (pBuffer == nullptr || m_pBuffer == nullptr) {
            return 0;
        }
        const DWORD dwHeld = GetSize();
        if (dwHeld == 0 || Distance(pBuffer) < dwHeld) {
            return 0;
        }
        const DWORD dwCopied = dwSize < dwHeld ? dwSize : dwHeld;
        std::memcpy(pBuffer, m_pBuffer, dwCopied);
        return dwCopied;
    }

    DWORD GetSize() const override { return m_pBuffer == nullptr ? 0 : HeapSize(GetProcessHeap(), 0, m_pBuffer); }
    void* GetAddress() const override { return m_pBuffer; }
    BYTE* GetBytes() const override { return static_cast<BYTE*>(m_pBuffer); }

    virtual ~CSmartBuffer() {
        if (m_pBuffer != nullptr) {
            HeapFree(GetProcessHeap(), 0, m_pBuffer);
        }
    }

    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): SetBuffer accepts its own bytes
    CSmartBuffer& operator=(const CSmartBuffer& objSmartBuffer) {
        SetBuffer(objSmartBuffer.GetAddress(), objSmartBuffer.GetSize());
        return *this;
    }
    // Appending a buffer to itself doubles it.
    CSmartBuffer& operator+=(const CSmartBuffer& objSmartBuffer) {
        AppendBuffer(objSmartBuffer.GetAddress(), objSmartBuffer.GetSize());
        return *this;
    }
    CSmartBuffer operator+(const CSmartBuffer& objSmartBuffer) const {
        CSmartBuffer objSum(*this);
        objSum += objSmartBuffer;
        return objSum;
    }
    // Same size and same bytes.
    bool operator==(const CSmartBuffer& objSmartBuffer) const {
        const DWORD dwSize = GetSize();
        return dwSize == objSmartBuffer.GetSize() &&
               (dwSize == 0 || std::memcmp(GetAddress(), objSmartBuffer.GetAddress(), dwSize) == 0);
    }
    bool operator!=(const CSmartBuffer& objSmartBuffer) const { return !(*this == objSmartBuffer); }

    // As GetAddress.
    operator void*() const { return m_pBuffer; }
    operator BYTE*() const { return static_cast<BYTE*>(m_pBuffer); }
    operator char*() const { return static_cast<char*>(m_pBuffer); }

private:
    // The distance, always positive, between an address and the block's start.
    DWORD Distance(const void* pAddress) const {
        const auto nAddress = reinterpret_cast<std::uintptr_t>(pAddress);
        const auto nBlock = reinterpret_cast<std::uintptr_t>(m_pBuffer);
        return nAddress > nBlock ? nAddress - nBlock : nBlock - nAddress;
    }
    bool Holds(const void* pAddress, DWORD dwSize) const {
        return m_pBuffer != nullptr &&
               reinterpret_cast<std::uintptr_t>(pAddress) >= reinterpret_cast<std::uintptr_t>(m_pBuffer) &&
               Distance(pAddress) < dwSize;
    }

    void* m_pBuffer;
};

static_assert(sizeof(CSmartBuffer) == 2 * sizeof(void*));
