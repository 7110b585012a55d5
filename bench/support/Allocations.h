// Counts the allocations of the calling thread. Allocations.cpp replaces operator new in the program.
#pragma once

namespace bench {

extern thread_local unsigned long t_nAllocations;

}  // namespace bench
