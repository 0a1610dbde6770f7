// Status queries. In local mode they read the mirror; in remote mode they
// ask the service through the back-end's node lookup and never consult the
// mirror. No query falls back from one mode to the other. `coding` is used
// in local mode only. Thread-safe.
#ifndef VEL_QUERY_H_
#define VEL_QUERY_H_

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "vel/export.h"

namespace VEL {

// 0, -1 (failure or not found) or -4 (null path or buffer, remote mode).
// Remote mode fills only st_mode (with the file-type bit), st_size, st_mtime.
VEL_API int32_t stat(const char* path, struct stat* buf, const char* coding = "UTF-8");
// 0 or -1; -4 for the root in remote mode. Remote masks are the decimal
// numbers 400 (read), 200 (write) and 100 (execute).
VEL_API int32_t access(const char* path, int mode, const char* coding = "UTF-8");
// 1 or 0.
VEL_API int32_t exists(const char* path, const char* coding = "UTF-8");
VEL_API int32_t isFile(const char* path, const char* coding = "UTF-8");
VEL_API int32_t isDirectory(const char* path, const char* coding = "UTF-8");
// Local mode: the whole st_mode; remote mode: the permission bits alone; -1.
VEL_API int32_t getmod(const char* path, const char* coding = "UTF-8");
// Examines a mirror path; false when stat fails (flags untouched).
VEL_API bool getLocalFileOrDirInfo(const std::string& mirrorPath, bool* isFile, bool* isDir);

}  // namespace VEL

#endif  // VEL_QUERY_H_
