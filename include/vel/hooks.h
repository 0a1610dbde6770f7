// Open/close synchronisation. Before a read the node is pulled from the
// service into the mirror; before a write only its parent directory is;
// after a write the mirror file is pushed back; after a read its times are
// set to now. No hook ever prevents the local operation: failures are logged
// and reported through the hook's result. Stream modes use the bits
// app 1, ate 2, binary 4, in 8, out 16, trunc 32.
#ifndef VEL_HOOKS_H_
#define VEL_HOOKS_H_

#include <cstdint>
#include <cstdio>
#include <string>

#include "vel/export.h"

namespace VEL {

VEL_API int32_t beforeRead(const char* path);
VEL_API int32_t beforeWrite(const char* path);
VEL_API int32_t afterRead(const char* path);
VEL_API int32_t afterWrite(const char* path);
VEL_API int32_t beforeOpenStream(const char* path, int32_t mode);
VEL_API int32_t beforeOpenFile(const char* path, const char* mode);
VEL_API int32_t afterCloseStream(const char* path, int32_t mode);
VEL_API int32_t afterCloseFile(const char* path, const char* mode);

// Opens the mirror copy of `path` after the before-open hook.
VEL_API FILE* fopen(const char* path, const char* mode, const char* coding = "UTF-8");
// Runs the after-close hook for a stream from fopen() and forgets the
// stream, then closes it. A stream fopen() did not open (or null) is only
// closed: nothing is sent to the service for it.
VEL_API int fclose(FILE* stream);

// Pulls the node (and with withTree the whole tree, at most
// "VEL_MAX_TREE_DEPTH" levels deep, default 128) from the service.
VEL_API int32_t syncFromServer(const std::string& path, bool withTree);
// Pushes the mirror node (and with recursive its tree, breadth-first, at
// most "VEL_MAX_TREE_DEPTH" levels deep) to the service; symbolic links are
// skipped, never followed. Returns the last entry's result.
VEL_API int32_t syncToServer(const std::string& path, bool recursive);

}  // namespace VEL

#endif  // VEL_HOOKS_H_
