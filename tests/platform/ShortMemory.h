// Lets the allocations of this program and its libraries fail.
#ifndef TESTS_PLATFORM_SHORTMEMORY_H
#define TESTS_PLATFORM_SHORTMEMORY_H

#include "HeapCounter.h"

// While it lives, all allocations fail but the first `successes`. Without effect where a sanitizer or
// memcheck owns the heap: heap::IsCounted tells.
class ShortMemory {
public:
    explicit ShortMemory(long successes);
    ~ShortMemory();
    ShortMemory(const ShortMemory&) = delete;
    ShortMemory& operator=(const ShortMemory&) = delete;

    // True when an allocation has failed.
    bool HasFailed() const;
};

#endif
