#include "AllocationLimit.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

std::atomic<size_t> g_cbMaxArray = AllocationLimit::kNone;
std::atomic<size_t> g_cbMaxObject = AllocationLimit::kNone;
std::atomic<size_t> g_cbRefused = 0;

void* Allocate(size_t cb, size_t cbMax) {
    if (cb > cbMax) {
        g_cbRefused = cb;
        throw std::bad_alloc();
    }
    void* const p = std::malloc(cb > 0 ? cb : 1);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}

}  // namespace

AllocationLimit::AllocationLimit(size_t cbMaxArray, size_t cbMaxObject) {
    g_cbRefused = 0;
    g_cbMaxArray = cbMaxArray;
    g_cbMaxObject = cbMaxObject;
}

AllocationLimit::~AllocationLimit() {
    g_cbMaxArray = kNone;
    g_cbMaxObject = kNone;
}

size_t AllocationLimit::Refused() const {
    return g_cbRefused;
}

void* operator new(std::size_t cb) {
    return Allocate(cb, g_cbMaxObject);
}
void* operator new[](std::size_t cb) {
    return std::memset(Allocate(cb, g_cbMaxArray), 0xAA, cb);
}
// A sanitizer's own operator would not match the delete below.
void* operator new(std::size_t cb, const std::nothrow_t&) noexcept {
    return std::malloc(cb > 0 ? cb : 1);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
