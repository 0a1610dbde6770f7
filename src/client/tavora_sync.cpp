// VELClientTavora: bringing nodes and trees from the service into the
// mirror, and listing service directories.
//
// A node the service does not have is never a reason to touch the mirror
// copy: the walk goes on with its parent. A local regular file where the
// service has a directory is moved aside (safeRemoveLocalObj), never
// deleted.
#include <sys/stat.h>

#include <cstdio>
#include <deque>
#include <iterator>
#include <list>
#include <set>
#include <string>
#include <utility>

#include "base/dir_mode.h"
#include "base/tree_depth.h"
#include "client/tavora_internal.h"
#include "vel/client_tavora.h"
#include "vel/local_perm.h"
#include "vel/log.h"
#include "vel/paths.h"
#include "vel/records.h"
#include "vel/tarn_client.h"

namespace VEL {

using namespace tavora;

namespace {

constexpr mode_t kMirrorRootMode = 0750;
constexpr uint32_t kPermissionBits = 0777;

bool endsWithSlash(const std::string& text) { return !text.empty() && text.back() == '/'; }

// True when a listed entry names a child of the listed directory: the
// directory's text, "/", one name (a trailing "/" marks a directory), and
// its mirror path is exactly that child's. Anything else ("..", a deeper or
// absolute path, a name that cleaning would change) would otherwise be
// cleaned into the mirror at some other place.
bool liesDirectlyBelow(const std::string& dir, const std::string& entry) {
  std::string prefix = dir;
  if (!prefix.empty() && !endsWithSlash(prefix)) {
    prefix.push_back('/');
  }
  if (entry.size() <= prefix.size() || entry.compare(0, prefix.size(), prefix) != 0) {
    return false;
  }
  std::string name = entry.substr(prefix.size());
  if (endsWithSlash(name)) {
    name.pop_back();
  }
  if (name.empty() || name == "." || name == ".." ||
      name.find_first_of("/\\") != std::string::npos) {
    return false;
  }
  const std::string parent = normalizePath(dir, true, '/');
  return normalizePath(entry, true, '/') == (parent.empty() ? name : parent + "/" + name);
}

}  // namespace

int32_t VELClientTavora::syncNodeFromRemote(const std::string& path, VELFileInfoMap* infoMap) {
  return guarded("syncNodeFromRemote", [&]() -> int32_t {
    if (infoMap != nullptr) {
      VEL_TAVORA_LOG(
          kLogDebug,
          "[VEL] VELClientTavora::syncNodeFromRemote() enter if (NULL != infoMap), path is %s",
          path.c_str());
      VELFileInfoMap::iterator it = infoMap->find(path);
      if (it != infoMap->end()) {
        VEL_TAVORA_LOG(
            kLogDebug,
            "[VEL] VELClientTavora::syncNodeFromRemote() enter if (it != infoMap->end())");
        if (it->second != nullptr) {
          VEL_TAVORA_LOG(kLogDebug,
                         "[VEL] VELClientTavora::syncNodeFromRemote() enter if (NULL != pInfo), "
                         "path is %s, mode is %d",
                         path.c_str(), static_cast<int32_t>(it->second->mode));
          return doSyncNodeFromRemote(*it->second, infoMap);
        }
      }
    }
    VEL_TAVORA_LOG(kLogDebug, "[VEL] VELClientTavora::syncNodeFromRemote() getNodeInfoFromRemote");
    VELFileInfoWrap fetched;
    int32_t rtn = getNodeInfoFromRemote(path, &fetched);
    if (rtn == kNotOnService) {
      VEL_TAVORA_LOG(kLogDebug,
                     "[VEL] VELClientTavora::syncNodeFromRemote() %s is not exist on tracker.",
                     path.c_str());
      std::string parent = getParentPath(path);
      if (!parent.empty()) {
        return syncNodeFromRemote(parent, infoMap);
      }
      return 0;
    }
    if (rtn != 0) {
      VEL_TAVORA_LOG(
          kLogError,
          "[VEL] VELClientTavora::syncNodeFromRemote() Failed to get VELFileInfo from tracker, "
          "errCode:%d",
          rtn);
      return rtn;
    }
    if (fetched.get() == nullptr) {
      VEL_TAVORA_LOG(kLogError,
                     "[VEL] VELClientTavora::syncNodeFromRemote() Cannot get VELFileInfo for %s.",
                     path.c_str());
      return kLocalFailure;
    }
    return doSyncNodeFromRemote(*fetched.get(), infoMap);
  });
}

int32_t VELClientTavora::doSyncNodeFromRemote(const VELFileInfo& info, VELFileInfoMap* infoMap) {
  return guarded("doSyncNodeFromRemote", [&]() -> int32_t {
    // The parent first. A parent that is there but is no directory counts as
    // missing, so that syncing it moves the object in its way aside.
    std::string localParent = getMirrorParentPath(info.velPath);
    struct stat st;
    if (::stat(localParent.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
      std::string parent = getParentPath(info.velPath);
      if (!parent.empty()) {
        int32_t rtn = syncNodeFromRemote(parent, infoMap);
        if (rtn != 0) {
          VEL_TAVORA_LOG(
              kLogError,
              "[VEL] VELClientTavora::doSyncNodeFromRemote() Failed to sync directory:%s",
              parent.c_str());
          return rtn;
        }
      } else if (::mkdir(localParent.c_str(), kMirrorRootMode) != 0) {
        VEL_TAVORA_LOG(
            kLogError,
            "[VEL] VELClientTavora::doSyncNodeFromRemote() Failed to create VEL root directory:%s",
            localParent.c_str());
        return kLocalFailure;
      }
    }

    if (!info.isFile) {
      std::string local = getMirrorPath(info.velPath);
      int32_t rtn = DealNotFile(local, info, &st);
      if (rtn != kGoOn) {
        return rtn;
      }
      // Only permission bits: a service's set-user-ID, sticky or type bits
      // have no business in the mirror.
      const mode_t mode = static_cast<mode_t>(info.mode & kPermissionBits);
      int made = ::mkdir(local.c_str(), mode);
      if (made == 0) {
        // mkdir is narrowed by the umask; the service's mode is set in full.
        (void)chmodDirectory(local.c_str(), mode);
        return 0;
      }
      VEL_TAVORA_LOG(kLogError,
                     "[VEL] VELClientTavora::doSyncNodeFromRemote() Failed to mkdir: %s, %d, %d",
                     local.c_str(), static_cast<int32_t>(info.mode), made);
      return kLocalFailure;
    }

    std::unique_ptr<TarnClient> client = TarnGetClient();
    if (!client) {
      return kNoAgent;
    }
    int32_t rtn = client->TarnDownloadLocal(info.velPath, "");
    if (rtn != 0) {
      VEL_TAVORA_LOG(kLogError,
                     "[VEL] VELClientTavora::doSyncNodeFromRemote() Failed to download: %s, %d, %d",
                     info.velPath.c_str(), static_cast<int32_t>(info.mode), rtn);
    }
    return rtn;
  });
}

int32_t VELClientTavora::DealNotFile(const std::string& localPath, const VELFileInfo& info,
                                     struct stat* st) {
  return guarded("DealNotFile", [&]() -> int32_t {
    struct stat own;
    struct stat* buf = st != nullptr ? st : &own;
    if (::stat(localPath.c_str(), buf) != 0) {
      return kGoOn;
    }
    if (S_ISDIR(buf->st_mode)) {
      // A link to a directory stands in for it, but its target may lie
      // outside the mirror: its mode is not the service's to change.
      struct stat link;
      if (::lstat(localPath.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) {
        VEL_TAVORA_LOG(kLogError,
                       "[VEL] VELClientTavora::DealNotFile() Kept the mode of %s, a symbolic link",
                       localPath.c_str());
        return 0;
      }
      int32_t rtn = updateLocalPermission(localPath, info.mode & kPermissionBits);
      if (rtn != 0) {
        VEL_TAVORA_LOG(
            kLogError,
            "[VEL] VELClientTavora::DealNotFile() Failed to updateLocalPermission: %s, %d, %d",
            localPath.c_str(), static_cast<int32_t>(info.mode), rtn);
      }
      return 0;
    }
    if (S_ISREG(buf->st_mode)) {
      VEL_TAVORA_LOG(kLogCall, "[VEL] VELClientTavora::DealNotFile() Remove conflicting file: %s",
                     localPath.c_str());
      int32_t rtn = safeRemoveLocalObj(localPath);
      if (rtn != 0) {
        VEL_TAVORA_LOG(kLogError,
                       "[VEL] VELClientTavora::DealNotFile() Failed to remove conflicting object: "
                       "%s, %d",
                       localPath.c_str(), rtn);
        return rtn;
      }
      return kGoOn;
    }
    return kGoOn;
  });
}

int32_t VELClientTavora::syncCurrentPath(const std::string& dir, bool namesOnly,
                                         std::list<std::string>& names) {
  return guarded("syncCurrentPath",
                 [&]() -> int32_t { return syncListedDir(dir, namesOnly, false, names, nullptr); });
}

int32_t VELClientTavora::syncListedDir(const std::string& dir, bool namesOnly, bool strict,
                                       std::list<std::string>& names, int64_t* budget) {
  std::list<std::string> entries;
  {
    std::unique_ptr<TarnClient> client = TarnGetClient();
    if (!client) {
      return kNoAgent;
    }
    int32_t rtn = client->TarnListFile(dir, "false", entries);
    if (rtn != 0) {
      VEL_TAVORA_LOG(kLogError, "[VEL] syncCurrentPath() Failed to get file list %s", dir.c_str());
      return rtn;
    }
  }
  for (const std::string& entry : entries) {
    if (budget != nullptr && (*budget)-- <= 0) {
      return kLocalFailure;  // the walk logs where it stopped
    }
    if (namesOnly && entry.size() <= dir.size()) {
      VEL_TAVORA_LOG(kLogError, "[VEL] VELClientTavora::syncCurrentPath() Invalid path {%d}|{%d}",
                     static_cast<int32_t>(entry.size()), static_cast<int32_t>(dir.size()));
      return kBadArgument;
    }
    if (!liesDirectlyBelow(dir, entry)) {
      VEL_TAVORA_LOG(kLogError,
                     "[VEL] VELClientTavora::syncCurrentPath() Skipped \"%s\", not directly "
                     "below \"%s\"",
                     entry.c_str(), dir.c_str());
      if (strict) {
        return kLocalFailure;
      }
      continue;
    }
    if (namesOnly) {
      names.push_back(entry);
      continue;
    }
    VELFileInfoWrap node;
    int32_t rtn = getNodeInfoFromRemote(entry, &node);
    if (rtn != 0 || node.get() == nullptr) {
      VEL_TAVORA_LOG(kLogError, "[VEL] VELClientTavora::syncCurrentPath() Failed to get node%s, %d",
                     entry.c_str(), rtn);
      if (strict) {
        return rtn != 0 ? rtn : kLocalFailure;
      }
      return kMissing;
    }
    rtn = doSyncNodeFromRemote(*node.get(), nullptr);
    if (rtn != 0) {
      VEL_TAVORA_LOG(kLogError,
                     "[VEL] VELClientTavora::syncCurrentPath() Failed to sync node%s, %d",
                     entry.c_str(), rtn);
      return rtn;
    }
    if (!node.get()->isFile) {
      names.push_back(entry);
    }
  }
  return 0;
}

int32_t VELClientTavora::walkTree(const std::string& path, bool namesOnly, bool strict,
                                  std::list<std::string>& names) {
  const int32_t maxDepth = maxTreeDepth();
  const int64_t maxEntries = maxTreeEntries();
  int64_t budget = maxEntries;
  names.push_back(path);
  // Breadth-first; each directory carries its level below `path`. Each
  // directory is walked once, and none below the depth bound, so that an
  // agent that lists a directory inside itself cannot keep the walk going.
  std::deque<std::pair<std::string, int32_t>> pending;
  pending.emplace_back(path, 0);
  std::set<std::string> walked;
  while (!pending.empty()) {
    const std::string dir = std::move(pending.front().first);
    const int32_t level = pending.front().second;
    pending.pop_front();
    if (!walked.insert(normalizePath(dir, true, '/')).second) {
      continue;
    }
    if (level >= maxDepth) {
      VEL_TAVORA_LOG(kLogError,
                     "[VEL] VELClientTavora::getSubDirOrFileList() Stopped at the depth bound %d, "
                     "not listed: %s",
                     maxDepth, dir.c_str());
      if (strict) {
        return kLocalFailure;
      }
      continue;
    }
    std::list<std::string>::iterator last = std::prev(names.end());
    int32_t rtn = syncListedDir(dir, namesOnly, strict, names, &budget);
    for (std::list<std::string>::iterator it = std::next(last); it != names.end(); ++it) {
      if (endsWithSlash(*it)) {
        pending.emplace_back(*it, level + 1);
      }
    }
    if (budget < 0) {
      VEL_TAVORA_LOG(kLogError,
                     "[VEL] VELClientTavora::getSubDirOrFileList() Stopped at the entry bound "
                     "%lld, in: %s",
                     static_cast<long long>(maxEntries), dir.c_str());
      return strict ? kLocalFailure : 0;
    }
    if (rtn != 0) {
      VEL_TAVORA_LOG(kLogError,
                     "[VEL] VELClientTavora::getSubDirOrFileList() Failed to sync path%s, %d",
                     dir.c_str(), rtn);
      if (strict) {
        return rtn;
      }
    }
  }
  return 0;
}

int32_t VELClientTavora::pullTree(const std::string& path) {
  return guarded("syncTreeFromRemote", [&]() -> int32_t {
    std::list<std::string> names;
    return walkTree(path, false, true, names);
  });
}

int32_t VELClientTavora::holdsTreeUnder(const std::string& src, const std::string& dst,
                                        std::string& missing) {
  // Each walk's names after the first (the start itself) lie below it: its
  // text and "/" (every listed entry is checked to be a direct child).
  const auto relativeNames = [this](const std::string& top, std::set<std::string>& out) {
    std::list<std::string> names;
    int32_t rtn = walkTree(top, true, true, names);
    const size_t cut = top.empty() ? 0 : top.size() + 1;
    for (std::list<std::string>::iterator it = std::next(names.begin()); it != names.end(); ++it) {
      out.insert(it->size() > cut ? it->substr(cut) : std::string());
    }
    return rtn;
  };
  std::set<std::string> below;
  int32_t rtn = relativeNames(src, below);
  if (rtn != 0) {
    return rtn;
  }
  std::set<std::string> moved;
  rtn = relativeNames(dst, moved);
  if (rtn != 0) {
    return rtn;
  }
  for (const std::string& name : below) {
    if (moved.count(name) == 0) {
      missing = src.empty() ? name : src + "/" + name;
      return kLocalFailure;
    }
  }
  return 0;
}

int32_t VELClientTavora::getSubDirOrFileList(const std::string& path, bool keepDirs, int32_t depth,
                                             bool namesOnly, std::list<std::string>& names) {
  return guarded("getSubDirOrFileList", [&]() -> int32_t {
    names.clear();
    if (depth == 0 || depth == -1) {
      // Failures of single directories are logged by the walk; the listing
      // is what was found.
      walkTree(path, namesOnly, false, names);
    } else {
      int32_t levels = depth;
      const int32_t maxDepth = maxTreeDepth();
      if (levels > maxDepth) {
        VEL_TAVORA_LOG(kLogError,
                       "[VEL] VELClientTavora::getSubDirOrFileList() Stopped at the depth bound "
                       "%d below %s",
                       maxDepth, path.c_str());
        levels = maxDepth;
      }
      std::list<std::string> work;
      work.push_back(path);
      for (int32_t level = levels; level >= 1; --level) {
        for (const std::string& dir : work) {
          int32_t rtn = syncCurrentPath(dir, namesOnly, names);
          if (rtn != 0) {
            VEL_TAVORA_LOG(kLogError,
                           "[VEL] VELClientTavora::getSubDirOrFileList() Failed to sync dir%s, %d",
                           dir.c_str(), rtn);
          }
        }
        if (!namesOnly) {
          work = names;
          names.clear();
        }
      }
    }

    if (keepDirs) {
      for (std::string& name : names) {
        if (endsWithSlash(name)) {
          name.pop_back();
        }
      }
    } else {
      names.remove_if([](const std::string& name) { return endsWithSlash(name); });
    }

    // Every element but the first becomes relative to the listed path. The
    // root ("") has no separator to skip.
    const size_t cut = path.size() + ((path.empty() || endsWithSlash(path)) ? 0 : 1);
    bool first = true;
    for (std::string& name : names) {
      std::printf("====>%s === %d === %s\n", name.c_str(), static_cast<int32_t>(cut), path.c_str());
      if (!first) {
        name = cut <= name.size() ? name.substr(cut) : std::string();
      }
      first = false;
    }
    std::fflush(stdout);
    return 0;
  });
}

int32_t VELClientTavora::syncTreeFromRemote(const std::string& path) {
  return guarded("syncTreeFromRemote", [&]() -> int32_t {
    std::list<std::string> names;
    return getSubDirOrFileList(path, true, -1, false, names);
  });
}

int32_t VELClientTavora::listDir(const std::string& path, int32_t maxDepth, bool filesOnly,
                                 std::list<std::string>& names) {
  return guarded("listDir", [&]() -> int32_t {
    return getSubDirOrFileList(normalizePath(path, true, '/'), !filesOnly, maxDepth, true, names);
  });
}

}  // namespace VEL
