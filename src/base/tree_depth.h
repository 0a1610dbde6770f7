// How deep the tree walks go: pulling a tree from the service, recursive
// listings and pushing a mirror tree. Every walk counts levels below the
// path it started at and stops at this bound, so that a listing that names
// a directory inside itself, or a link loop, cannot keep a walk going.
#ifndef VEL_BASE_TREE_DEPTH_H_
#define VEL_BASE_TREE_DEPTH_H_

#include <cstdint>

namespace VEL {

constexpr int32_t kDefaultTreeDepth = 128;
constexpr int32_t kLargestTreeDepth = 4096;

// "VEL_MAX_TREE_DEPTH" as a decimal number in 1..4096, read on every call;
// 128 when it is absent or anything else. Thread-safe.
int32_t maxTreeDepth();

}  // namespace VEL

#endif  // VEL_BASE_TREE_DEPTH_H_
