// How far the tree walks go: pulling a tree from the service, recursive
// listings and pushing a mirror tree. Every walk counts levels below the
// path it started at and stops at the depth bound, so that a listing that
// names a directory inside itself, or a link loop, cannot keep a walk
// going; and it stops after the entry bound, so that a listing that names
// several new directories inside every directory cannot either.
#ifndef VEL_BASE_TREE_DEPTH_H_
#define VEL_BASE_TREE_DEPTH_H_

#include <cstdint>

namespace VEL {

constexpr int32_t kDefaultTreeDepth = 128;
constexpr int32_t kLargestTreeDepth = 4096;
constexpr int64_t kDefaultTreeEntries = 1000000;
constexpr int64_t kLargestTreeEntries = 100000000;

// "VEL_MAX_TREE_DEPTH" as a decimal number in 1..4096, read on every call;
// 128 when it is absent or anything else. Thread-safe.
int32_t maxTreeDepth();

// "VEL_MAX_TREE_ENTRIES" as a decimal number in 1..100000000, read on every
// call; 1000000 when it is absent or anything else. The number of entries
// one walk may visit. Thread-safe.
int64_t maxTreeEntries();

}  // namespace VEL

#endif  // VEL_BASE_TREE_DEPTH_H_
