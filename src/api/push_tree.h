// The walk behind syncToServer(), shared with the remote back-end's
// directory rename.
#ifndef VEL_API_PUSH_TREE_H_
#define VEL_API_PUSH_TREE_H_

#include <cstdint>
#include <string>

#include "vel/client.h"

namespace VEL {

// Pushes the mirror node of `path` (with `recursive`, its whole tree,
// breadth-first, so that a directory reaches the service before its
// children) through `client`. Symbolic links are never followed: they are
// skipped with a log line. The walk does not go deeper than the tree depth
// bound (base/tree_depth.h) below `path`, visits no more entries than the
// entry bound, and logs where it stopped.
//
// Lenient (`strict` false), as syncToServer(): every entry is tried and the
// last entry's result is returned; a mirror entry that cannot be read gives
// -11 unless a result is already set.
// Strict: the first failing entry ends the walk with its status; an entry
// that cannot be read, a directory at the depth bound or the entry bound
// ends it with -1.
// Only 0 then means that all of the tree reached the service, except the
// symbolic links, which are skipped in both ways: a caller that must know
// the service holds everything asks the service.
int32_t pushTree(VELClient* client, const std::string& path, bool recursive, bool strict);

}  // namespace VEL

#endif  // VEL_API_PUSH_TREE_H_
