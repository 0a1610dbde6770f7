// Permission changes in the mirror. The name may stand for a symbolic link
// (whose target may lie outside the mirror) or, where a folder was made, for
// a file that already held it. No change here ever goes through a link.
// Thread safety: none needed beyond the file system's.
#ifndef VEL_BASE_DIR_MODE_H_
#define VEL_BASE_DIR_MODE_H_

#include <sys/types.h>

namespace VEL {

// Sets the permission bits of the directory `path` itself. A symbolic link
// in the last component is not followed and anything that is not a
// directory is left alone. 0 on success; -1 with errno set otherwise
// (ELOOP for a link, ENOTDIR for another object).
int chmodDirectory(const char* path, mode_t mode);

// Sets the permission bits of whatever `path` names, as chmod() does, but a
// symbolic link in the last component is neither followed nor changed.
// 0 on success; -1 with errno set otherwise (ELOOP for a link).
int chmodNoFollow(const char* path, mode_t mode);

}  // namespace VEL

#endif  // VEL_BASE_DIR_MODE_H_
