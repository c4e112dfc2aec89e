// Counts every heap allocation of the program, on every thread, through replaced global
// operator new. A benchmark that links allocation_counter.cc reads the count around its timed
// loop to show what a steady state allocates per item; 0 is the goal on the hot paths.
#pragma once

#include <cstdint>

namespace vantrelo::bench {

// Allocations since the program started.
uint64_t allocations();

}  // namespace vantrelo::bench
