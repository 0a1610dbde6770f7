// Bounds-checked string and memory functions.
//
// Every function takes the size of the destination buffer (`destMax`) and,
// where it copies or formats, the most characters it may write (`count`).
// They never write past `destMax` bytes and always leave a NUL-terminated
// result when the destination is usable.
//
// Results: 0 on success (memset_s, strcpy_s, strncpy_s); the number of
// characters written for the formatters. -1 when an argument is invalid or
// the result had to be cut: memset_s then fills what fits, the copy
// functions leave an empty string, the formatters keep the first `count`
// characters (or `destMax` - 1, whichever is smaller) followed by a NUL.
//
// Thread safety: all functions are reentrant.
//
// Internal to the library (global names, not in VEL): libvel.so.0 does not
// export them, and the header is not installed.
#ifndef VEL_BASE_SAFE_STR_H_
#define VEL_BASE_SAFE_STR_H_

#include <cstdarg>
#include <cstddef>

int memset_s(void* dest, size_t destMax, int c, size_t count);
int strcpy_s(char* dest, size_t destMax, const char* src);
int strncpy_s(char* dest, size_t destMax, const char* src, size_t count);
int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
int vsnprintf_s(char* dest, size_t destMax, size_t count, const char* format, va_list args)
    __attribute__((format(printf, 4, 0)));

#endif  // VEL_BASE_SAFE_STR_H_
