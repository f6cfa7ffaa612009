/* Bounds-checked copying, moving and formatting. */
#include "safestr.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

static int RefuseText(char* dest, size_t destMax, int error) {
    if (dest != NULL && destMax > 0) dest[0] = '\0';
    return error;
}

static int CopyText(char* dest, size_t destMax, const char* src, size_t count) {
    if (dest == NULL || destMax == 0 || src == NULL) return RefuseText(dest, destMax, EINVAL);

    /* Never looks further into src than the text that could fit. */
    const size_t length = strnlen(src, count < destMax ? count : destMax);
    if (length >= destMax) return RefuseText(dest, destMax, ERANGE);

    memmove(dest, src, length);
    dest[length] = '\0';
    return 0;
}

__attribute__((format(printf, 4, 0))) static int FormatText(char* dest, size_t destMax, size_t count,
                                                            const char* format, va_list arguments) {
    if (dest == NULL || destMax == 0 || format == NULL) return RefuseText(dest, destMax, -1);

    const size_t capacity = count < destMax ? count + 1 : destMax;
    const int length = vsnprintf(dest, capacity, format, arguments);
    if (length < 0 || (size_t)length >= capacity) return RefuseText(dest, destMax, -1);
    return length;
}

int memset_s(void* dest, size_t destMax, int value, size_t count) {
    if (dest == NULL || destMax == 0) return EINVAL;
    if (count > destMax) return ERANGE;

    memset(dest, value, count);
    return 0;
}

int memmove_s(void* dest, size_t destMax, const void* src, size_t count) {
    if (dest == NULL || destMax == 0 || src == NULL) return EINVAL;
    if (count > destMax) return ERANGE;

    memmove(dest, src, count);
    return 0;
}

int strcpy_s(char* dest, size_t destMax, const char* src) {
    return CopyText(dest, destMax, src, (size_t)-1);
}

int strncpy_s(char* dest, size_t destMax, const char* src, size_t count) {
    return CopyText(dest, destMax, src, count);
}

int sprintf_s(char* dest, size_t destMax, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = FormatText(dest, destMax, (size_t)-1, format, arguments);
    va_end(arguments);
    return length;
}

int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = FormatText(dest, destMax, count, format, arguments);
    va_end(arguments);
    return length;
}
