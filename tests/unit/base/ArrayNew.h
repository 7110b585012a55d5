// Watches the program's array new and array delete, from which string blocks come. One at a time, for one thread.
#pragma once

#include <cstddef>
#include <vector>

class CArrayNewWatch {
public:
    struct Block {
        void* pAddress;
        std::size_t cbSize;
        bool bFreed;
    };

    CArrayNewWatch();
    ~CArrayNewWatch();
    CArrayNewWatch(const CArrayNewWatch&) = delete;
    CArrayNewWatch& operator=(const CArrayNewWatch&) = delete;

    // Sizes of the blocks allocated so far, in order.
    std::vector<std::size_t> Sizes() const;
    std::size_t FreedCount() const;

    // The next allocation throws std::bad_alloc.
    static void FailNext();

    // Every allocation from now on is this place, which is never freed.
    static void AllocateFrom(void* pPlace);

private:
    friend struct ArrayNewHooks;
    static constexpr std::size_t kMost = 64;
    Block m_aBlocks[kMost];
    std::size_t m_nBlocks;
};
