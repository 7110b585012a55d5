#include "Allocations.h"

#include <cstdlib>
#include <new>

namespace bench {

thread_local unsigned long t_nAllocations = 0;

namespace {

void* Allocate(std::size_t cb) {
    ++t_nAllocations;
    void* const p = std::malloc(cb > 0 ? cb : 1);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}

}  // namespace
}  // namespace bench

// Not inline: if the compiler sees malloc and free, it warns about a mismatch with new and delete.
[[gnu::noinline]] void* operator new(std::size_t cb) {
    return bench::Allocate(cb);
}
[[gnu::noinline]] void* operator new[](std::size_t cb) {
    return bench::Allocate(cb);
}
[[gnu::noinline]] void operator delete(void* p) noexcept {
    std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
[[gnu::noinline]] void operator delete[](void* p) noexcept {
    std::free(p);
}
[[gnu::noinline]] void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
