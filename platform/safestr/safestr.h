#ifndef SAFESTR_H
#define SAFESTR_H

#include <stddef.h>

/* Copying, moving and formatting into fixed buffers, with the buffer's capacity stated at every call.
 *
 * The copying functions return 0, or EINVAL for a null pointer or a capacity of 0, or ERANGE when what is to
 * be written does not fit. A text destination is left as the empty text on failure (if it has a byte to hold
 * that); memory is left as it was. The formatting functions return the length written without its NUL, or -1
 * on any failure; the destination is then the empty text. Only the bytes needed are written: nothing is
 * filled up behind a terminator. All of them are re-entrant and none allocates. */

#ifdef __cplusplus
extern "C" {
#endif

#define SAFESTR_API __attribute__((visibility("default")))

/* Sets the first `count` bytes of `dest`, a block of `destMax` bytes, to `value`. */
SAFESTR_API int memset_s(void* dest, size_t destMax, int value, size_t count);

/* Moves `count` bytes from `src` to `dest`, a block of `destMax` bytes. The two may overlap. */
SAFESTR_API int memmove_s(void* dest, size_t destMax, const void* src, size_t count);

/* Copies the text `src` with its NUL to `dest`, a buffer of `destMax` bytes. */
SAFESTR_API int strcpy_s(char* dest, size_t destMax, const char* src);

/* Copies the first `count` characters of the text `src`, or all of it if it is shorter, to `dest`, a buffer
 * of `destMax` bytes, and terminates them with a NUL. */
SAFESTR_API int strncpy_s(char* dest, size_t destMax, const char* src, size_t count);

/* Formats into `dest`, a buffer of `destMax` bytes. */
SAFESTR_API int sprintf_s(char* dest, size_t destMax, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/* Formats at most `count` characters and a NUL into `dest`, a buffer of `destMax` bytes. A text that is
 * longer than `count`, or does not fit with its NUL, is a failure. */
SAFESTR_API int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif
