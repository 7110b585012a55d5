// Memory that runs out when a test wants it to. In a program with this file new and array new, the bridge's included,
// can be made to fail; array new also fills what it allocates with 0xAA bytes.
#pragma once

#include <cstddef>
#include <limits>

// While it lives, larger allocations fail. One at a time.
class AllocationLimit {
public:
    static constexpr size_t kNone = std::numeric_limits<size_t>::max();

    // In bytes: for array new, and for the new of single objects, which is also what containers allocate with.
    explicit AllocationLimit(size_t cbMaxArray, size_t cbMaxObject = kNone);
    ~AllocationLimit();
    AllocationLimit(const AllocationLimit&) = delete;
    AllocationLimit& operator=(const AllocationLimit&) = delete;

    // The size of the last allocation that failed; 0 when none did.
    size_t Refused() const;
};
