#include "HeapCounter.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "Sanitizer.h"
#include "SystemCalls.h"

size_t calls::failingMallocSize = 0;
bool calls::newFails = false;

#if VFS_TEST_ADDRESS_SANITIZER || VFS_TEST_THREAD_SANITIZER

bool heap::IsCounted() {
    return false;
}
long heap::LiveBlocks() {
    return 0;
}
long heap::Allocations() {
    return 0;
}

#else

namespace {
std::atomic<long> liveBlocks{0};
std::atomic<long> allocations{0};

bool FailsNow() {
    if (!calls::FailsNow("malloc")) return false;
    errno = ENOMEM;
    return true;
}

void* Counted(void* block) {
    if (block != nullptr) {
        liveBlocks.fetch_add(1, std::memory_order_relaxed);
        allocations.fetch_add(1, std::memory_order_relaxed);
    }
    return block;
}
}  // namespace

// Another heap may stand in front of this one: memcheck's.
bool heap::IsCounted() {
    static const bool isCounted = [] {
        const long before = allocations;
        void* const volatile block = malloc(1);
        const bool hasCounted = allocations != before;
        free(block);
        return hasCounted;
    }();
    return isCounted;
}
long heap::LiveBlocks() {
    return liveBlocks;
}
long heap::Allocations() {
    return allocations;
}

// The C library's allocator under its other names, and this program's own in front of it.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);

#define VFS_TEST_EXPORT __attribute__((visibility("default")))

VFS_TEST_EXPORT void* malloc(size_t size) {
    if (size != 0 && size == calls::failingMallocSize) {
        errno = ENOMEM;
        return nullptr;
    }
    if (FailsNow()) return nullptr;
    return Counted(__libc_malloc(size));
}
VFS_TEST_EXPORT void* calloc(size_t count, size_t size) {
    return FailsNow() ? nullptr : Counted(__libc_calloc(count, size));
}
VFS_TEST_EXPORT void* realloc(void* block, size_t size) {
    if (FailsNow()) return nullptr;
    if (block == nullptr) return Counted(__libc_realloc(nullptr, size));
    return __libc_realloc(block, size);
}
VFS_TEST_EXPORT void* memalign(size_t alignment, size_t size) {
    return Counted(__libc_memalign(alignment, size));
}
VFS_TEST_EXPORT void* aligned_alloc(size_t alignment, size_t size) {
    return Counted(__libc_memalign(alignment, size));
}
VFS_TEST_EXPORT int posix_memalign(void** block, size_t alignment, size_t size) {
    *block = Counted(__libc_memalign(alignment, size));
    return *block != nullptr ? 0 : ENOMEM;
}
VFS_TEST_EXPORT void free(void* block) {
    if (block != nullptr) liveBlocks.fetch_sub(1, std::memory_order_relaxed);
    __libc_free(block);
}
}

VFS_TEST_EXPORT void* operator new(size_t size) {
    void* const block = calls::newFails ? nullptr : malloc(size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
VFS_TEST_EXPORT void operator delete(void* block) noexcept {
    free(block);
}
VFS_TEST_EXPORT void operator delete(void* block, size_t) noexcept {
    free(block);
}

#endif
