#include "signing/WipingMemory.h"

#include <malloc.h>
#include <openssl/crypto.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace vextk {
namespace {

// Not one for each thread: where memory has run out, libc could not make it, and would end the process.
std::atomic<std::uint64_t> s_cRefused{0};

void* Counted(void* pMemory) {
    if (pMemory == nullptr) {
        ++s_cRefused;
    }
    return pMemory;
}

// These use libc's blocks. So a block may come from OpenSSL's own functions, or be freed by libc's free.

void* Allocate(size_t cb, const char* /*pszFile*/, int /*nLine*/) {
    return cb != 0 ? Counted(std::malloc(cb)) : nullptr;
}

void WipeAndFree(void* pMemory, const char* /*pszFile*/, int /*nLine*/) {
    if (pMemory != nullptr) {
        OPENSSL_cleanse(pMemory, malloc_usable_size(pMemory));
        std::free(pMemory);
    }
}

// libc's realloc would free the old block without wiping it.
void* Reallocate(void* pMemory, size_t cb, const char* pszFile, int nLine) {
    if (pMemory == nullptr) {
        return Allocate(cb, pszFile, nLine);
    }
    if (cb == 0) {
        WipeAndFree(pMemory, pszFile, nLine);
        return nullptr;
    }
    const size_t cbOld = malloc_usable_size(pMemory);
    if (cb <= cbOld) {
        return pMemory;
    }
    void* const pNew = Counted(std::malloc(cb));
    if (pNew != nullptr) {
        std::memcpy(pNew, pMemory, cbOld);
        WipeAndFree(pMemory, pszFile, nLine);
    }
    return pNew;
}

}  // namespace

void WipeWhatOpenSslFrees() {
    static_cast<void>(CRYPTO_set_mem_functions(Allocate, Reallocate, WipeAndFree));
}

std::uint64_t RefusedAllocations() noexcept {
    return s_cRefused;
}

}  // namespace vextk
