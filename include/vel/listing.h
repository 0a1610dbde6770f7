// Directory listing. Local mode reads the mirror directory; remote mode
// lists the service through the back-end and hands the entries out from
// memory (opendir also creates the mirror directories of the path, 0750).
// A VEL_DIR belongs to one thread at a time.
#ifndef VEL_LISTING_H_
#define VEL_LISTING_H_

#include <dirent.h>

#include <cstdint>
#include <list>
#include <string>

#include "vel/export.h"

namespace VEL {

struct VEL_DIR {
  DIR* dir = nullptr;                         // local mode
  std::list<std::string>* entries = nullptr;  // remote mode, owned
  std::list<std::string>::iterator cursor;    // next entry to hand out
};

// A new handle, or null (errno from opendir in local mode).
VEL_API VEL_DIR* opendir(const char* path, const char* coding = "UTF-8");
// 0 with *result set; -1 at the end and on every error (*result null).
VEL_API int readdir_r(VEL_DIR* dir, struct dirent* entry, struct dirent** result,
                      const char* coding = "UTF-8");
VEL_API void closedir(VEL_DIR* dir);
// Number of entries, 0 when none (null *namelist), -1 on error. Release
// each record and the array with ACE_OS::free (or free).
VEL_API int scandir(const char* path, struct dirent*** namelist,
                    int (*selector)(const struct dirent*),
                    int (*compar)(const struct dirent**, const struct dirent**),
                    const char* coding = "UTF-8");
// 1 on success; remote mode 0 on failure. Entry names are appended.
VEL_API int readDir(const std::string& path, std::list<std::string>& entries, bool fullPath,
                    bool recursive, const char* coding = "UTF-8");
// Reads a mirror directory (no "." / ".."), appending in the reader's
// order; 1 on success, 0 when the directory cannot be opened.
// - Both flags clear: the bare names of the directory's own entries; no
//   stat call, no descent.
// - `fullPath` set: every entry as mirrorPath + "/" + name.
// - `recursive` set: entries are composed the same way, and after the
//   directory is read each entry whose stat lacks the regular-file bit
//   (symbolic links excepted) is read the same way, its entries appended
//   after this directory's (paths stay composed from `mirrorPath`).
VEL_API int readLocalDir(const std::string& mirrorPath, std::list<std::string>& entries,
                         bool fullPath, bool recursive, const char* coding = "UTF-8");

}  // namespace VEL

#endif  // VEL_LISTING_H_
