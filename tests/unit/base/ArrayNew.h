// Watches the program's array new and array delete, which allocate the string blocks. For one thread, one watch at a
// time.
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

    // From now on every allocation returns this address, which is never freed.
    static void AllocateFrom(void* pPlace);

private:
    friend struct ArrayNewHooks;
    static constexpr std::size_t kMost = 64;
    Block m_aBlocks[kMost];
    std::size_t m_nBlocks;
};
