// Kept copies: a mirror file that must make way for the service's version
// and that no record vouches for is never overwritten or deleted; it is
// renamed to "<name>.vel.keep.NNNNNNNN" (eight or more decimal digits from
// the system's random source) in its own folder, the form the library uses
// for objects in its way. The rename never replaces anything that is
// there.
//
// Thread safety: may be called from any thread.
#ifndef VEL_TOOLS_FILEAGENT_FS_KEPT_COPY_H_
#define VEL_TOOLS_FILEAGENT_FS_KEPT_COPY_H_

#include <string>

namespace velagent {

// Renames `name` in the folder `dirFd` to a free kept-copy name, given in
// `kept`. 0, or errno (EEXIST when no free name was found).
int keepAside(int dirFd, const std::string& name, std::string& kept);

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_FS_KEPT_COPY_H_
