// Safe removal and permission bits of mirror paths (not application paths).
//
// safeRemoveLocalObj never deletes: it renames the node aside to
// "<path>.vel.keep.%08u" (a random value from /dev/urandom), then
// "..._1" up to "..._99". Results: 0 (nothing there, or moved aside),
// -1 (rename failed), -9 (all 100 names taken). No locks.
#ifndef VEL_LOCAL_PERM_H_
#define VEL_LOCAL_PERM_H_

#include <cstdint>
#include <string>

#include "vel/export.h"

namespace VEL {

VEL_API int32_t safeRemoveLocalObj(const std::string& path);
// st_mode & 0777, or -1.
VEL_API int32_t getLocalPermission(const std::string& path);
// 0 or -1; -1 for a symbolic link, which is neither followed nor changed.
VEL_API int32_t setLocalPermission(const std::string& path, uint32_t mode);
// 0 when the bits already match, else setLocalPermission's result.
VEL_API int32_t updateLocalPermission(const std::string& path, uint32_t mode);

}  // namespace VEL

#endif  // VEL_LOCAL_PERM_H_
