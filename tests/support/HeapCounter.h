// Counts the program's heap blocks, the library's among them.
#ifndef TESTS_SUPPORT_HEAPCOUNTER_H
#define TESTS_SUPPORT_HEAPCOUNTER_H

namespace heap {

// False where a sanitizer or memcheck owns the heap: it finds leaks itself, and the counts below stay 0.
bool IsCounted();
// Blocks that are allocated and not freed now.
long LiveBlocks();
// Blocks that were ever allocated.
long Allocations();

}  // namespace heap

#endif
