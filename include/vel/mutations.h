// Namespace mutations. In remote mode each is carried out on the service
// first and then mirrored locally; in local mode only the mirror changes.
// Thread-safe as far as the back-end is.
#ifndef VEL_MUTATIONS_H_
#define VEL_MUTATIONS_H_

#include <cstdint>
#include <string>

#include "vel/export.h"

namespace VEL {

// 0; -1 when the directory exists (remote) or mkdir fails; back-end codes.
VEL_API int32_t mkdir(const char* path, uint32_t mode, const char* coding = "UTF-8");
// Creates every missing level; an existing directory is no error.
VEL_API int32_t mkdir_all(const std::string& path, uint32_t mode, const char* coding = "UTF-8");
// Mirror only: missing ancestors get 0750, the leaf gets `mode`.
VEL_API int32_t createLocalDirs(const std::string& path, uint32_t mode);
VEL_API int32_t rmdir(const char* path, const char* coding = "UTF-8");
VEL_API int32_t unlink(const char* path, const char* coding = "UTF-8");
// `flag` is passed to the local rename, which ignores it.
VEL_API int32_t rename(const char* oldPath, const char* newPath, int flag = 0,
                       const char* coding = "UTF-8");
// As rename() without the "rename(): old/new" log line.
VEL_API int32_t rename2(const char* oldPath, const char* newPath, int flag = 0,
                        const char* coding = "UTF-8");
// Removes a tree: in remote mode on the service first, and the mirror tree
// only when the service removed it (or never had it); otherwise the
// service's code is returned and the mirror is untouched. Refuses a path
// that cleans to the mirror root with -1. A local failure is only logged.
VEL_API int32_t delTree(const char* path, const char* coding = "UTF-8");
// Deletes a mirror tree (mirror path); -8 for an unsupported node type.
VEL_API int32_t delLocalTree(const std::string& mirrorPath, const char* coding = "UTF-8");

}  // namespace VEL

#endif  // VEL_MUTATIONS_H_
