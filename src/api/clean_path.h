// Path cleaning and mirror mapping without copies, for the calls that hand
// a path straight to the file system.
#ifndef VEL_API_CLEAN_PATH_H_
#define VEL_API_CLEAN_PATH_H_

#include <cstddef>
#include <string>

namespace VEL {

// `path` past its leading blanks when normalizePath(path, keepRelative, '/')
// would return exactly that text (and it is not empty), with its length in
// `length`; null when cleaning would change it.
const char* cleanPathAsIs(const char* path, bool keepRelative, size_t& length);

// The configured mirror root, as getRootPath() returns it, without a copy.
const std::string& rootPathRef();

// getMirrorPath(path) as a C string: assembled in place when the path is
// clean and short, so that the common call costs no allocation.
class MirrorPath {
 public:
  explicit MirrorPath(const char* path);
  MirrorPath(const MirrorPath&) = delete;
  MirrorPath& operator=(const MirrorPath&) = delete;

  const char* c_str() const { return text_; }

 private:
  char buffer_[256];
  std::string built_;
  const char* text_;
};

}  // namespace VEL

#endif  // VEL_API_CLEAN_PATH_H_
