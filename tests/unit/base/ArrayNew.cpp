#include "ArrayNew.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<CArrayNewWatch*> s_pWatch{nullptr};
std::atomic<bool> s_bFailNext{false};
std::atomic<void*> s_pPlace{nullptr};

}  // namespace

struct ArrayNewHooks {
    static void* Allocate(std::size_t cbSize) {
        if (void* const pPlace = s_pPlace) {
            return pPlace;
        }
        void* const pAddress = s_bFailNext.exchange(false) ? nullptr : std::malloc(cbSize);
        if (pAddress == nullptr) {
            throw std::bad_alloc();
        }
        CArrayNewWatch* const pWatch = s_pWatch;
        if (pWatch != nullptr && pWatch->m_nBlocks < CArrayNewWatch::kMost) {
            pWatch->m_aBlocks[pWatch->m_nBlocks++] = {pAddress, cbSize, false};
        }
        return pAddress;
    }

    static void Free(void* pAddress) {
        if (s_pPlace != nullptr) {
            return;
        }
        CArrayNewWatch* const pWatch = s_pWatch;
        for (std::size_t nBlock = pWatch == nullptr ? 0 : pWatch->m_nBlocks; nBlock > 0; --nBlock) {
            if (pWatch->m_aBlocks[nBlock - 1].pAddress == pAddress) {
                pWatch->m_aBlocks[nBlock - 1].bFreed = true;
                break;
            }
        }
        std::free(pAddress);
    }
};

CArrayNewWatch::CArrayNewWatch() : m_aBlocks(), m_nBlocks(0) {
    s_pWatch = this;
}

CArrayNewWatch::~CArrayNewWatch() {
    s_pWatch = nullptr;
}

std::vector<std::size_t> CArrayNewWatch::Sizes() const {
    std::vector<std::size_t> sizes;
    for (std::size_t nBlock = 0; nBlock < m_nBlocks; ++nBlock) {
        sizes.push_back(m_aBlocks[nBlock].cbSize);
    }
    return sizes;
}

std::size_t CArrayNewWatch::FreedCount() const {
    std::size_t nFreed = 0;
    for (std::size_t nBlock = 0; nBlock < m_nBlocks; ++nBlock) {
        nFreed += m_aBlocks[nBlock].bFreed ? 1 : 0;
    }
    return nFreed;
}

void CArrayNewWatch::FailNext() {
    s_bFailNext = true;
}

void CArrayNewWatch::AllocateFrom(void* pPlace) {
    s_pPlace = pPlace;
}

void* operator new[](std::size_t cbSize) {
    return ArrayNewHooks::Allocate(cbSize);
}

void operator delete[](void* pAddress) noexcept {
    ArrayNewHooks::Free(pAddress);
}

void operator delete[](void* pAddress, std::size_t) noexcept {
    ArrayNewHooks::Free(pAddress);
}
