// Test helpers: a temporary directory removed with its contents, a scoped
// environment variable, small file helpers and a snapshot of a folder.
#ifndef VEL_TESTS_SUPPORT_TEMP_DIR_H_
#define VEL_TESTS_SUPPORT_TEMP_DIR_H_

#include <sys/stat.h>

#include <map>
#include <string>
#include <vector>

namespace veltest {

// Creates a fresh directory under $TMPDIR (or /tmp); removes it recursively
// when destroyed.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + relative
  std::string sub(const std::string& relative) const;

 private:
  std::string path_;
};

// Sets (or, with a null value, unsets) an environment variable for its
// lifetime and restores the previous state afterwards.
class ScopedEnv {
 public:
  ScopedEnv(const std::string& name, const char* value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  bool had_ = false;
  std::string old_;
};

// Writes `content` to `path` (creating or truncating it).
void writeFile(const std::string& path, const std::string& content);
// The whole content of `path`; "" when it cannot be read.
std::string readFile(const std::string& path);
// True when something exists at `path` (lstat).
bool pathExists(const std::string& path);
// Permission bits (st_mode & 07777) of `path`, or -1.
int permissionsOf(const std::string& path);
// Creates every missing directory of `path` with `mode`.
void makeDirs(const std::string& path, mode_t mode = 0755);
// A file to plant(): its path below the root, its content and, unless 0,
// its permission bits. A path ending in "/" is a folder.
struct Planted {
  std::string rel;
  std::string content;
  mode_t mode = 0;
};
// Writes each file below `root`, making its folders.
void plant(const std::string& root, const std::vector<Planted>& files);
// Removes `path` and everything below it; no error when absent.
void removeTree(const std::string& path);
// The names in the folder `path` but "." and "..", sorted; none when it
// cannot be read.
std::vector<std::string> namesIn(const std::string& path);
// The paths that match the shell pattern `pattern` (glob(3)), sorted.
std::vector<std::string> matching(const std::string& pattern);

// What one path holds.
struct Node {
  char type = '?';      // 'f' file, 'd' directory, 'l' symbolic link
  int mode = 0;         // permission bits
  std::string content;  // a file's bytes, a link's target
  bool operator==(const Node& other) const {
    return type == other.type && mode == other.mode && content == other.content;
  }
};
// Every path below a folder, relative to it.
using Tree = std::map<std::string, Node>;
// What is below `root` now; links are not followed.
Tree snapshot(const std::string& root);

}  // namespace veltest

#endif  // VEL_TESTS_SUPPORT_TEMP_DIR_H_
