// Which sanitizer the tests are built with, for what can't be shown under one.
#ifndef TESTS_SUPPORT_SANITIZER_H
#define TESTS_SUPPORT_SANITIZER_H

#if defined(__has_feature)
#define VFS_TEST_HAS_FEATURE(feature) __has_feature(feature)
#else
#define VFS_TEST_HAS_FEATURE(feature) 0
#endif

#if defined(__SANITIZE_ADDRESS__) || VFS_TEST_HAS_FEATURE(address_sanitizer)
#define VFS_TEST_ADDRESS_SANITIZER 1
#else
#define VFS_TEST_ADDRESS_SANITIZER 0
#endif

#if defined(__SANITIZE_THREAD__) || VFS_TEST_HAS_FEATURE(thread_sanitizer)
#define VFS_TEST_THREAD_SANITIZER 1
#else
#define VFS_TEST_THREAD_SANITIZER 0
#endif

#endif
