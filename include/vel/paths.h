// Application paths: cleaning, mapping into the mirror and back.
//
// An application path names a node relative to the mirror root; it may use
// "/" or "\" as separator and carry blanks around components. Every public
// function cleans it with normalizePath(path, true, '/'), which can never
// climb above its start. None of these functions touches the file system;
// all are thread-safe (the mirror root is read from the client instance).
#ifndef VEL_PATHS_H_
#define VEL_PATHS_H_

#include <string>

#include "vel/export.h"

namespace VEL {

// Placeholder written instead of the mirror root in placeholder form.
extern VEL_API const std::string kVelRootPlaceholder;  // "${VEL_ROOT}"

// Cleans a path: skips leading blanks, splits at "/" and "\", trims blanks
// around components, drops empty and "." components, lets ".." remove the
// component before it (a leading ".." is dropped) and joins with `sep`.
// With keepRelative false a leading separator is kept as one `sep`.
// A null path yields "".
VEL_API std::string normalizePath(const char* path, bool keepRelative = true, char sep = '/');
inline std::string normalizePath(const std::string& path, bool keepRelative = true,
                                 char sep = '/') {
  return normalizePath(path.c_str(), keepRelative, sep);
}

// The configured mirror root, as configured (not cleaned). Reaching it may
// create the client instance; when no back-end can be created the default
// root "/opt/backup/vel" is returned.
VEL_API std::string getRootPath();
// root + "/" + cleaned path; the root alone when the cleaned path is empty.
VEL_API std::string getMirrorPath(const std::string& path);
// root + "/" + cleaned path up to its last "/"; the root when it has none.
VEL_API std::string getMirrorParentPath(const std::string& path);
// "${VEL_ROOT}" + "/" + cleaned path; "${VEL_ROOT}" when it is empty.
VEL_API std::string getPlaceholderPath(const std::string& path);
// The non-null components joined with "/" and cleaned (no leading "/").
VEL_API std::string joinPath(const char* p1, const char* p2 = nullptr, const char* p3 = nullptr,
                             const char* p4 = nullptr, const char* p5 = nullptr);
// The cleaned path up to its last "/"; "" when it has none.
VEL_API std::string getParentPath(const std::string& path);
// The cleaned path after its last "/"; the whole cleaned path when none.
VEL_API std::string getBaseName(const std::string& path);
// Replaces every "\" of `path` by "/" in place, then returns the part after
// the last "/" (the whole string when it has none).
VEL_API std::string getFileName(std::string& path);
// True when the path, cleaned with its leading separator kept, starts with "/".
VEL_API bool isAbsolutePath(const std::string& path);
// Makes `path` relative to the mirror root: stores the relative form in
// `out` and returns out.c_str(); returns null (out empty) when the path is
// not the root or below it.
VEL_API const char* toRelativePath(const std::string& path, std::string& out);
// True when toRelativePath() succeeds.
VEL_API bool isInRoot(const std::string& path);

}  // namespace VEL

#endif  // VEL_PATHS_H_
