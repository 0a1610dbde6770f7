// VELClientLocal: listing, directory creation and permission changes on the
// mirror alone.
#include "vel/client_local.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "base/dir_mode.h"
#include "base/tree_depth.h"
#include "vel/codeset.h"
#include "vel/listing.h"
#include "vel/log.h"
#include "vel/mutations.h"
#include "vel/paths.h"
#include "vel/query.h"

namespace VEL {

namespace {

constexpr int32_t kUnlimitedDepth = 65535;
const char* const kUtf8 = "UTF-8";

std::string childPath(const std::string& dir, const char* name) {
  return dir.empty() ? std::string(name) : dir + "/" + name;
}

// What one listing may still do: the entries it may still visit, and the
// bounds it logs when it stops at them.
struct WalkBounds {
  int32_t maxDepth;  // the tree depth bound, for the log
  int64_t maxEntries;
  int64_t budget;
};

// Lists one directory (service path) into `names`, then walks the
// subdirectories it noted, each with one level less. A symbolic link is
// listed but never descended, whatever it leads to, so that a link back
// into the tree (l -> .) cannot keep the walk going. False once the entry
// bound is reached: the walk ends there.
bool walkDir(const std::string& dir, int32_t depth, bool boundedByTree, WalkBounds& bounds,
             std::list<std::string>& names) {
  VEL_DIR* handle = VEL::opendir(dir.c_str(), kUtf8);
  if (handle == nullptr) {
    return true;
  }
  std::vector<std::string> subDirs;
  struct dirent entry;
  std::memset(&entry, 0, sizeof(entry));
  struct dirent* result = nullptr;
  bool more = true;
  while (VEL::readdir_r(handle, &entry, &result, kUtf8) == 0 && result != nullptr) {
    if (std::strcmp(result->d_name, ".") == 0 || std::strcmp(result->d_name, "..") == 0) {
      continue;
    }
    std::string path = childPath(dir, result->d_name);
    struct stat st;
    if (VEL::stat(path.c_str(), &st, kUtf8) != 0) {
      continue;
    }
    if (bounds.budget-- <= 0) {
      getLogger()->log(kLogError, "[VEL] listDir: Stopped at the entry bound %lld, in: %s",
                       static_cast<long long>(bounds.maxEntries), dir.c_str());
      more = false;
      break;
    }
    names.push_back(path);
    struct stat own;
    if (!S_ISDIR(st.st_mode) || handleLstat(getMirrorPath(path).c_str(), &own, kUtf8) != 0 ||
        S_ISLNK(own.st_mode)) {
      continue;
    }
    if (depth > 1) {
      subDirs.push_back(path);
    } else if (boundedByTree) {
      getLogger()->log(kLogError, "[VEL] listDir: Stopped at the depth bound %d, not listed: %s",
                       bounds.maxDepth, path.c_str());
    }
  }
  VEL::closedir(handle);
  for (const std::string& sub : subDirs) {
    if (!more) {
      break;
    }
    more = walkDir(sub, depth - 1, boundedByTree, bounds, names);
  }
  return more;
}

}  // namespace

int32_t VELClientLocal::listDir(const std::string& path, int32_t maxDepth, bool /*filesOnly*/,
                                std::list<std::string>& names) {
  names.clear();
  std::string local = getMirrorPath(path);
  struct stat st;
  if (::stat(local.c_str(), &st) != 0) {
    getLogger()->log(kLogDebug, "[VEL] listDir: dir not exist:%s", local.c_str());
    return -11;
  }
  if ((st.st_mode & 0x8000) != 0) {
    getLogger()->log(kLogDebug, "[VEL] listDir: not a dir:%s", local.c_str());
    return -16;
  }
  // The caller's depth, but never deeper than the tree depth bound; and no
  // more entries than the entry bound.
  int32_t depth = maxDepth >= 1 ? maxDepth : kUnlimitedDepth;
  WalkBounds bounds{maxTreeDepth(), maxTreeEntries(), 0};
  bounds.budget = bounds.maxEntries;
  const bool boundedByTree = depth > bounds.maxDepth;
  if (boundedByTree) {
    depth = bounds.maxDepth;
  }
  // Entries are named below the cleaned path ("a/b", not "/a//b").
  walkDir(normalizePath(path, true, '/'), depth, boundedByTree, bounds, names);
  return 0;
}

int32_t VELClientLocal::newDir(const std::string& path, uint32_t mode, bool recursive) {
  if (!recursive) {
    std::string local = getMirrorPath(path);
    if (::mkdir(local.c_str(), mode) != 0) {
      return -1;
    }
    (void)chmodDirectory(local.c_str(), mode);
    return 0;
  }

  std::string work = normalizePath(path, true, '/');
  if (work.empty()) {
    return 0;
  }
  if (VEL_DIR* dir = VEL::opendir(work.c_str(), kUtf8)) {
    VEL::closedir(dir);
    return 0;
  }
  // Cut the path back at each "/" until a prefix exists.
  std::vector<size_t> cuts;
  bool found = false;
  for (size_t i = work.size(); i-- > 0;) {
    if (work[i] != '/') {
      continue;
    }
    cuts.push_back(i);
    work[i] = '\0';
    if (VEL_DIR* dir = VEL::opendir(work.c_str(), kUtf8)) {
      VEL::closedir(dir);
      found = true;
      break;
    }
  }
  if (!found) {
    int32_t ret = VEL::mkdir(work.c_str(), mode, kUtf8);
    if (ret != 0) {
      return ret;
    }
  }
  while (!cuts.empty()) {
    work[cuts.back()] = '/';
    cuts.pop_back();
    int32_t ret = VEL::mkdir(work.c_str(), mode, kUtf8);
    if (ret != 0) {
      return ret;
    }
  }
  return 0;
}

int32_t VELClientLocal::chmod(const std::string& path, uint32_t mode) {
  std::string local = getMirrorPath(path);
  // A link in the mirror is refused (ELOOP), never followed.
  int ret = chmodNoFollow(local.c_str(), mode);
  if (ret != 0) {
    getLogger()->log(kLogError, "[VEL] VELClientLocal::chmod(%s, %d) Failed to chmod, errno=%d",
                     path.c_str(), static_cast<int>(mode), errno);
  }
  return ret;
}

}  // namespace VEL
