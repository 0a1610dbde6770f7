// Code-set conversion of file names, real paths, and the code-set-aware
// local calls that every higher layer uses on mirror paths.
//
// Only "UTF-8" and "utf-8" mean "no conversion"; any other code-set name
// converts each path from UTF-8 before the system call (and directory entry
// names back to UTF-8). A conversion to or from "UNKNOWN" is skipped (the
// caller then receives an empty name). A null code-set name is taken as
// "UTF-8".
// iconv descriptors are opened once per ordered pair and cached for the
// life of the process under one mutex. The wrappers return the system
// call's result and leave errno as the call set it. Thread-safe.
#ifndef VEL_CODESET_H_
#define VEL_CODESET_H_

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "vel/export.h"

namespace VEL {

extern VEL_API std::string g_unknownCodeSet;  // "UNKNOWN"

// True for "UTF-8" and "utf-8" (exact, case-sensitive).
VEL_API bool isUtf8(const char* coding);

// 0 on success or when nothing needed converting; -1 on failure; otherwise
// iconv's count of irreversible conversions.
VEL_API int32_t codeSetConvert(const std::string& from, const std::string& to,
                               const std::string& input, std::string& output);
// Convert `text` from UTF-8 to `coding` / from `coding` to UTF-8; on a
// failed conversion `out` receives the unconverted text.
VEL_API int32_t convertFromUtf8(std::string& out, const std::string& text, const char* coding);
VEL_API int32_t convertToUtf8(std::string& out, const std::string& text, const char* coding);

// Resolves `path`; with a null `resolved` the buffer is allocated (release
// it with ACE_OS::free for a non-UTF-8 coding, with free otherwise).
VEL_API char* handleRealpath(const char* path, char* resolved, const char* coding);
// The resolved path, or "" on failure.
VEL_API std::string getRealPath(const std::string& path);

VEL_API int handleStat(const char* path, struct stat* buf, const char* coding);
// As handleStat, but a symbolic link is described itself, not its target.
VEL_API int handleLstat(const char* path, struct stat* buf, const char* coding);
VEL_API int handleAccess(const char* path, int mode, const char* coding);
// mkdir, then chmod with the same mode whatever mkdir returned, but only of
// a directory itself: a symbolic link or a file already holding the name
// keeps its mode (and so does a link's target).
VEL_API int handleMkdir(const char* path, mode_t mode, const char* coding);
// -1 without calling anything when either path is null; `flag` is unused.
VEL_API int handleRename(const char* oldPath, const char* newPath, int flag, const char* coding);
VEL_API int handleRemove(const char* path, const char* coding);
VEL_API int handleRmdir(const char* path, const char* coding);
VEL_API DIR* handleOpendir(const char* path, const char* coding);
VEL_API int handleScandir(const char* dir, struct dirent*** namelist,
                          int (*selector)(const struct dirent*),
                          int (*compar)(const struct dirent**, const struct dirent**),
                          const char* coding);
VEL_API FILE* handleFopen(const char* path, const char* mode, const char* coding);
VEL_API int handleClosedir(DIR* dir);
// 1 when `result` is null; converts the entry's name back to UTF-8. A
// converted name that does not fit the entry's d_name ends the call with
// ENAMETOOLONG and a null *result (logged); nothing is written past d_name.
VEL_API int handleReaddir_r(DIR* dir, struct dirent* entry, struct dirent** result,
                            const char* coding);

// Changes the permission bits of a node through the back-end; refuses a
// null path and the mirror root itself with -1.
VEL_API int32_t chmod(const char* path, uint32_t mode);

}  // namespace VEL

#endif  // VEL_CODESET_H_
