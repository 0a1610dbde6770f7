#include "base/safe_str.h"

#include <cstdio>
#include <cstring>

int memset_s(void* dest, size_t destMax, int c, size_t count) {
  if (dest == nullptr || destMax == 0) {
    return -1;
  }
  if (count > destMax) {
    std::memset(dest, c, destMax);
    return -1;
  }
  std::memset(dest, c, count);
  return 0;
}

int strcpy_s(char* dest, size_t destMax, const char* src) {
  if (dest == nullptr || destMax == 0) {
    return -1;
  }
  if (src == nullptr) {
    dest[0] = '\0';
    return -1;
  }
  size_t len = std::strlen(src);
  if (len >= destMax) {
    dest[0] = '\0';
    return -1;
  }
  std::memmove(dest, src, len + 1);
  return 0;
}

int strncpy_s(char* dest, size_t destMax, const char* src, size_t count) {
  if (dest == nullptr || destMax == 0) {
    return -1;
  }
  if (src == nullptr) {
    dest[0] = '\0';
    return -1;
  }
  size_t len = strnlen(src, count);
  if (len >= destMax) {
    dest[0] = '\0';
    return -1;
  }
  std::memmove(dest, src, len);
  dest[len] = '\0';
  return 0;
}

int vsnprintf_s(char* dest, size_t destMax, size_t count, const char* format, va_list args) {
  if (dest == nullptr || destMax == 0) {
    return -1;
  }
  if (format == nullptr) {
    dest[0] = '\0';
    return -1;
  }
  // At most `limit` characters plus the terminator fit.
  size_t limit = count < destMax ? count : destMax - 1;
  int needed = std::vsnprintf(dest, limit + 1, format, args);
  if (needed < 0) {
    dest[0] = '\0';
    return -1;
  }
  if (static_cast<size_t>(needed) > limit) {
    return -1;  // vsnprintf kept the first `limit` characters and a NUL.
  }
  return needed;
}

int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int ret = vsnprintf_s(dest, destMax, count, format, args);
  va_end(args);
  return ret;
}
