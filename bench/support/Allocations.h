// How often the calling thread asks for memory: a program with Allocations.cpp counts operator new.
#pragma once

namespace bench {

extern thread_local unsigned long t_nAllocations;

}  // namespace bench
