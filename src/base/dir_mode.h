// Permission changes of mirror directories that the library creates. The
// name may already exist as something else: a symbolic link (whose target
// may lie outside the mirror) or a file. Neither may have its mode changed.
#ifndef VEL_BASE_DIR_MODE_H_
#define VEL_BASE_DIR_MODE_H_

#include <sys/types.h>

namespace VEL {

// Sets the permission bits of the directory `path` itself. A symbolic link
// in the last component is not followed and anything that is not a
// directory is left alone. 0 on success; -1 with errno set otherwise
// (ELOOP for a link, ENOTDIR for another object).
int chmodDirectory(const char* path, mode_t mode);

}  // namespace VEL

#endif  // VEL_BASE_DIR_MODE_H_
