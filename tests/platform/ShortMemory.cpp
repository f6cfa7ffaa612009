#include "ShortMemory.h"

#include <atomic>
#include <limits>

#include "SystemCalls.h"

namespace {

constexpr long kEnough = std::numeric_limits<long>::max();

std::atomic<long> successesLeft{kEnough};

}  // namespace

ShortMemory::ShortMemory(long successes) {
    successesLeft = successes;
}

ShortMemory::~ShortMemory() {
    successesLeft = kEnough;
}

bool ShortMemory::HasFailed() const {
    return successesLeft < 0;
}

// What HeapCounter asks. The other replaced calls would stand in front of what is tested here.
bool calls::FailsNow(const char* /*call*/) {
    return --successesLeft < 0;
}
