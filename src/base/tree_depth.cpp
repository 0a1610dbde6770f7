#include "base/tree_depth.h"

#include <cstdlib>

namespace VEL {

namespace {

// A decimal number in 1..largest from the environment; `fallback` for
// anything else.
int64_t boundFromEnv(const char* name, int64_t fallback, int64_t largest) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') {
    return fallback;
  }
  int64_t value = 0;
  for (const char* c = text; *c != '\0'; ++c) {
    if (*c < '0' || *c > '9') {
      return fallback;
    }
    value = value * 10 + (*c - '0');
    if (value > largest) {
      return fallback;
    }
  }
  return value >= 1 ? value : fallback;
}

}  // namespace

int32_t maxTreeDepth() {
  return static_cast<int32_t>(
      boundFromEnv("VEL_MAX_TREE_DEPTH", kDefaultTreeDepth, kLargestTreeDepth));
}

int64_t maxTreeEntries() {
  return boundFromEnv("VEL_MAX_TREE_ENTRIES", kDefaultTreeEntries, kLargestTreeEntries);
}

}  // namespace VEL
