#include "SystemCalls.h"

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>

// Each definition carries the platform's name in the object file only: the platform's headers declare the
// same functions with attributes that a second declaration could not repeat.
#define VFS_TEST_DEFINE_HOOK(result, name, parameters, arguments)                                      \
    calls::Hook<result parameters> calls::name = {nullptr};                                            \
    result calls::real::name parameters {                                                              \
        static const auto next = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name));      \
        return next arguments;                                                                         \
    }                                                                                                  \
    extern "C" __attribute__((visibility("default"))) result VfsTest_##name parameters __asm__(#name); \
    extern "C" result VfsTest_##name parameters {                                                      \
        const auto* const replacement = calls::name.replacement;                                       \
        return replacement != nullptr ? (*replacement)arguments : calls::real::name arguments;         \
    }
VFS_TEST_SYSTEM_CALLS(VFS_TEST_DEFINE_HOOK)
VFS_TEST_FILE_LIST_CALLS(VFS_TEST_DEFINE_HOOK)

bool calls::snprintfFails = false;
bool calls::sprintfFails = false;
bool (*calls::failsNow)(const char*) = nullptr;

namespace {
thread_local int pauses = 0;
}

bool calls::FailsNow(const char* call) {
    return failsNow != nullptr && pauses == 0 && failsNow(call);
}

calls::WithoutFaults::WithoutFaults() {
    ++pauses;
}

calls::WithoutFaults::~WithoutFaults() {
    --pauses;
}

extern "C" __attribute__((visibility("default"))) int VfsTest_snprintf_s(char*, size_t, size_t, const char*,
                                                                         ...) __asm__("snprintf_s");
extern "C" __attribute__((format(printf, 4, 5))) int VfsTest_snprintf_s(char* dest, size_t destMax,
                                                                        size_t count, const char* format,
                                                                        ...) {
    if (calls::snprintfFails || calls::FailsNow("snprintf_s")) return -1;
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(dest, destMax, format, arguments);
    va_end(arguments);
    return length < 0 || static_cast<size_t>(length) > count ? -1 : length;
}

extern "C" __attribute__((visibility("default"))) int VfsTest_sprintf_s(char*, size_t, const char*,
                                                                        ...) __asm__("sprintf_s");
extern "C" __attribute__((format(printf, 3, 4))) int VfsTest_sprintf_s(char* dest, size_t destMax,
                                                                       const char* format, ...) {
    if (calls::sprintfFails || calls::FailsNow("sprintf_s")) return -1;
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(dest, destMax, format, arguments);
    va_end(arguments);
    return length;
}

#if VFS_TEST_COVERAGE
// A forked child that ends by itself would take its counters along.
extern "C" void __gcov_dump();
extern "C" __attribute__((visibility("default"), noreturn)) void VfsTest_exit(int) __asm__("_exit");
extern "C" void VfsTest_exit(int status) {
    __gcov_dump();
    for (;;) (void)syscall(SYS_exit_group, status);
}
#endif
