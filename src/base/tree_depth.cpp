#include "base/tree_depth.h"

#include <cstdlib>

namespace VEL {

int32_t maxTreeDepth() {
  const char* text = std::getenv("VEL_MAX_TREE_DEPTH");
  if (text == nullptr || *text == '\0') {
    return kDefaultTreeDepth;
  }
  int32_t value = 0;
  for (const char* c = text; *c != '\0'; ++c) {
    if (*c < '0' || *c > '9') {
      return kDefaultTreeDepth;
    }
    value = value * 10 + (*c - '0');
    if (value > kLargestTreeDepth) {
      return kDefaultTreeDepth;
    }
  }
  return value >= 1 ? value : kDefaultTreeDepth;
}

}  // namespace VEL
