// Lets a test run out of memory. In a program with this file, new and array new can fail, also in the bridge. Array new
// also fills new memory with 0xAA bytes.
#pragma once

#include <cstddef>
#include <limits>

// Larger allocations fail while it exists. One at a time.
class AllocationLimit {
public:
    static constexpr size_t kNone = std::numeric_limits<size_t>::max();

    // In bytes: for array new, and for the new of single objects, which containers use, too.
    explicit AllocationLimit(size_t cbMaxArray, size_t cbMaxObject = kNone);
    ~AllocationLimit();
    AllocationLimit(const AllocationLimit&) = delete;
    AllocationLimit& operator=(const AllocationLimit&) = delete;

    // The size of the last allocation that failed; 0 when none did.
    size_t Refused() const;
};
