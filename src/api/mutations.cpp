// Namespace mutations: on the service first (remote mode), then in the
// mirror.
#include "vel/mutations.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <list>
#include <string>
#include <vector>

#include "api/back_end.h"
#include "vel/client.h"
#include "vel/codeset.h"
#include "vel/instance.h"
#include "vel/listing.h"
#include "vel/log.h"
#include "vel/paths.h"
#include "vel/query.h"

namespace VEL {

namespace {

constexpr int32_t kAlreadyExists = -12;
constexpr int32_t kNotOnService = -11;
constexpr uint32_t kAncestorMode = 488;  // 0750
const char* const kUtf8 = "UTF-8";

// Creates the mirror root with the caller's mode when it is missing;
// returns 0 or the failing mkdir's result (already logged).
int32_t ensureRoot(const char* name, uint32_t mode, const char* coding) {
  std::string root = getRootPath();
  if (handleAccess(root.c_str(), F_OK, coding) == 0) {
    return 0;
  }
  int ret = handleMkdir(root.c_str(), mode, coding);
  if (ret != 0) {
    getLogger()->log(kLogError, "[VEL] %s: VEL root is not exist, failed to create. %s(%d), rtn:%d",
                     name, root.c_str(), static_cast<int>(mode), ret);
  }
  return ret;
}

// The two public renames differ only in the first log line.
int32_t renameImpl(const char* oldPath, const char* newPath, int flag, const char* coding,
                   bool logCall) {
  if (oldPath == nullptr || newPath == nullptr) {
    getLogger()->log(kLogError, "[VEL] rename(), bad parameter: NULL path");
    return -1;
  }
  VELClient* client = backEnd("rename");
  if (client == nullptr) {
    return -1;
  }
  bool remote = client->isLocalOnly() == 0;
  if (remote) {
    std::string oldClean = normalizePath(oldPath, true, '/');
    std::string newClean = normalizePath(newPath, true, '/');
    if (logCall) {
      getLogger()->log(kLogError, "[VEL] rename(): old: %s, new: %s", oldClean.c_str(),
                       newClean.c_str());
    }
    int32_t code = isDirectory(oldPath, kUtf8) == 1 ? client->RenameDir(oldClean, newClean)
                                                    : client->rename(oldClean, newClean);
    if (code != 0) {
      getLogger()->log(kLogError,
                       "[VEL] rename: Failed to rename file on VEL server. %s -> %s, errCode:%d",
                       oldClean.c_str(), newClean.c_str(), code);
      return code;
    }
  }
  std::string oldMirror = getMirrorPath(oldPath);
  std::string newMirror = getMirrorPath(newPath);
  if (remote && handleAccess(oldMirror.c_str(), F_OK, coding) != 0) {
    return 0;  // The back-end has already moved the mirror copy.
  }
  int ret = handleRename(oldMirror.c_str(), newMirror.c_str(), flag, coding);
  if (ret != 0) {
    getLogger()->log(kLogError,
                     "[VEL] rename: Failed to rename file on local server. %s -> %s, rtn:%d, "
                     "errno:%d",
                     oldMirror.c_str(), newMirror.c_str(), ret, errno);
    return ret;
  }
  return 0;
}

}  // namespace

int32_t mkdir(const char* path, uint32_t mode, const char* coding) {
  if (path == nullptr) {
    getLogger()->log(kLogError, "[VEL] mkdir(), bad parameter: NULL path");
    return -1;
  }
  VELClient* client = backEnd("mkdir");
  if (client == nullptr) {
    return -1;
  }
  std::string cleaned = normalizePath(path, true, '/');
  if (client->isLocalOnly() != 0) {
    return handleMkdir(getMirrorPath(cleaned).c_str(), mode, coding);
  }
  int32_t ret = ensureRoot("mkdir", mode, coding);
  if (ret != 0) {
    return ret;
  }
  if (cleaned.empty()) {
    return 0;
  }
  int32_t code = client->newDir(cleaned, mode, false);
  if (code == 0) {
    return handleAccess(getMirrorPath(cleaned).c_str(), F_OK, coding);
  }
  if (code == kAlreadyExists) {
    return -1;
  }
  return code;
}

int32_t mkdir_all(const std::string& path, uint32_t mode, const char* coding) {
  VELClient* client = backEnd("mkdir_all");
  if (client == nullptr) {
    return -1;
  }
  std::string cleaned = normalizePath(path, true, '/');
  if (client->isLocalOnly() == 0) {
    // A root that cannot be created is logged; the service call decides.
    ensureRoot("mkdir_all", mode, coding);
    if (cleaned.empty()) {
      return 0;
    }
    int32_t code = client->newDir(cleaned, mode, true);
    if (code == 0 || code == kAlreadyExists) {
      return handleAccess(getMirrorPath(cleaned).c_str(), F_OK, coding);
    }
    return code;
  }

  if (cleaned.empty()) {
    return 0;
  }
  if (isDirectory(cleaned.c_str(), coding) == 1) {
    getLogger()->log(kLogDebug, "[VEL] isDirectory(pFolderStr, coding) return 0");
    return 0;
  }
  // Levels still to create, deepest first; scan upwards for an existing one.
  std::vector<std::string> missing{cleaned};
  bool found = false;
  for (size_t slash = cleaned.rfind('/'); slash != std::string::npos && slash > 0;
       slash = cleaned.rfind('/', slash - 1)) {
    std::string prefix = cleaned.substr(0, slash);
    if (isDirectory(prefix.c_str(), coding) == 1) {
      found = true;
      break;
    }
    missing.push_back(prefix);
  }
  if (!found) {
    getLogger()->log(kLogError, "[VEL] mkdir_all(%s, %d): Try to create VEL root.", path.c_str(),
                     static_cast<int>(mode));
  }
  while (!missing.empty()) {
    const std::string& level = missing.back();
    int32_t ret = mkdir(level.c_str(), mode, coding);
    if (ret != 0) {
      getLogger()->log(kLogError, "[VEL] mkdir_all(%s, %d): Failed to create dir:%s, rtn:%d",
                       path.c_str(), static_cast<int>(mode), level.c_str(), ret);
      return ret;
    }
    missing.pop_back();
  }
  return 0;
}

int32_t createLocalDirs(const std::string& path, uint32_t mode) {
  std::string mirror = getMirrorPath(path);
  bool isDir = false;
  if (getLocalFileOrDirInfo(mirror, nullptr, &isDir) && isDir) {
    getLogger()->log(kLogError, "[VEL] createLocalDir(), %s exists", mirror.c_str());
    return 0;
  }
  getLogger()->log(kLogError, "[VEL] createLocalDirs(), %s is not exist", mirror.c_str());
  // The mirror root has no parent to create first.
  if (!normalizePath(path, true, '/').empty()) {
    int32_t ret = createLocalDirs(getParentPath(path), kAncestorMode);
    if (ret != 0) {
      getLogger()->log(kLogError, "[VEL] createLocalDir(), failed to mkdir, fullPath is :%s",
                       mirror.c_str());
      return ret;
    }
  }
  getLogger()->log(kLogError, "[VEL] createLocalDir(), try to mkdir, fullPath is :%s",
                   mirror.c_str());
  return handleMkdir(mirror.c_str(), mode, kUtf8);
}

int32_t rmdir(const char* path, const char* coding) {
  if (path == nullptr) {
    getLogger()->log(kLogError, "[VEL] rmdir(), bad parameter: NULL path");
    return -1;
  }
  VELClient* client = backEnd("rmdir");
  if (client == nullptr) {
    return -1;
  }
  std::string cleaned = normalizePath(path, true, '/');
  if (client->isLocalOnly() == 0) {
    int32_t code = client->removeObjectOnRemote(cleaned);
    if (code != 0 && code != kNotOnService) {
      // The service keeps the directory, so the mirror keeps it too.
      getLogger()->log(kLogError, "[VEL] rmdir: Failed to remove dir on VEL server. %s, %d",
                       cleaned.c_str(), code);
      return 0;
    }
  }
  std::string mirror = getMirrorPath(cleaned);
  int ret = handleRmdir(mirror.c_str(), coding);
  if (ret != 0) {
    bool isDir = false;
    if (getLocalFileOrDirInfo(mirror, nullptr, &isDir) && isDir) {
      getLogger()->log(kLogError, "[VEL] rmdir: Failed to remove dir on local server. %s, %d",
                       mirror.c_str(), ret);
      return ret;
    }
  }
  return 0;
}

int32_t unlink(const char* path, const char* coding) {
  if (path == nullptr) {
    getLogger()->log(kLogError, "[VEL] unlink(), bad parameter: NULL path");
    return -1;
  }
  VELClient* client = backEnd("unlink");
  if (client == nullptr) {
    return -1;
  }
  std::string cleaned = normalizePath(path, true, '/');
  bool remote = client->isLocalOnly() == 0;
  if (remote) {
    int32_t code = client->removeObjectOnRemote(cleaned);
    if (code != 0 && code != kNotOnService) {
      getLogger()->log(kLogError, "[VEL] unlink: Failed to remove file on VEL server. %s, %d",
                       cleaned.c_str(), code);
      return code;
    }
  }
  std::string mirror = getMirrorPath(cleaned);
  int ret = handleRemove(mirror.c_str(), coding);
  if (ret != 0) {
    if (!remote) {
      return ret;
    }
    bool isFileNode = false;
    if (!getLocalFileOrDirInfo(mirror, &isFileNode, nullptr) || !isFileNode) {
      return 0;
    }
    getLogger()->log(kLogError, "[VEL] unlink: Failed to remove file on local server. %s, %d",
                     mirror.c_str(), ret);
    return ret;
  }
  return 0;
}

int32_t rename(const char* oldPath, const char* newPath, int flag, const char* coding) {
  return renameImpl(oldPath, newPath, flag, coding, true);
}

int32_t rename2(const char* oldPath, const char* newPath, int flag, const char* coding) {
  return renameImpl(oldPath, newPath, flag, coding, false);
}

int32_t delTree(const char* path, const char* coding) {
  if (path == nullptr) {
    getLogger()->log(kLogError, "[VEL] delTree(), bad parameter: NULL path");
    return -1;
  }
  // The root is the whole mirror: never deleted in one call.
  std::string cleaned = normalizePath(path, true, '/');
  if (cleaned.empty()) {
    getLogger()->log(kLogError, "[VEL] delTree(%s), cannot operate VELRoot", path);
    return -1;
  }
  VELClient* client = backEnd("delTree");
  if (client == nullptr) {
    return -1;
  }
  // The service first: while it keeps the tree, the mirror keeps the local
  // copies, some of which may not have been sent yet.
  if (client->isLocalOnly() == 0) {
    int32_t code = client->delDir(cleaned, true);
    if (code != 0 && code != kNotOnService) {
      getLogger()->log(kLogError, "[VEL] delTree: Failed to remove dir on VEL server. %s, %d",
                       cleaned.c_str(), code);
      return code;
    }
  }
  std::string mirror = getMirrorPath(cleaned);
  bool isDir = false;
  if (getLocalFileOrDirInfo(mirror, nullptr, &isDir) && isDir) {
    int32_t ret = delLocalTree(mirror, coding);
    if (ret != 0) {
      getLogger()->log(kLogError, "[VEL] delTree: Failed to remove dir on local server. %s, %d",
                       mirror.c_str(), ret);
    }
  }
  return 0;
}

int32_t delLocalTree(const std::string& mirrorPath, const char* coding) {
  // A symbolic link is looked at itself: its type carries the file bit, so
  // the link is removed and whatever it points to is never walked into.
  struct stat st;
  int ret = handleLstat(mirrorPath.c_str(), &st, coding);
  if (ret != 0) {
    getLogger()->log(kLogError, "[VEL] delLocalTree: Failed to get stat. %s, %d",
                     mirrorPath.c_str(), ret);
    return ret;
  }
  if ((st.st_mode & 0x8000) != 0) {
    ret = handleRemove(mirrorPath.c_str(), coding);
    if (ret != 0) {
      getLogger()->log(kLogError,
                       "[VEL] delLocalTree: Failed to remove file on local server. %s, %d",
                       mirrorPath.c_str(), ret);
    }
    return ret;
  }
  if ((st.st_mode & 0x4000) == 0) {
    getLogger()->log(kLogError,
                     "[VEL] delLocalTree: Failed to remove file or dir %s, unsupported mode %d.",
                     mirrorPath.c_str(), static_cast<int>(st.st_mode));
    return -8;
  }
  std::list<std::string> names;
  if (readLocalDir(mirrorPath, names, false, false, coding) == 0) {
    getLogger()->log(kLogError, "[VEL] delLocalTree: Failed to readLocalDir. %s",
                     mirrorPath.c_str());
    return -1;
  }
  for (const std::string& name : names) {
    std::string child = mirrorPath + "/" + name;
    ret = delLocalTree(child, coding);
    if (ret != 0) {
      getLogger()->log(kLogError,
                       "[VEL] delLocalTree: Failed to remove file or dir on local server. %s, %d",
                       child.c_str(), ret);
      return ret;
    }
  }
  ret = handleRmdir(mirrorPath.c_str(), coding);
  if (ret != 0) {
    getLogger()->log(kLogError, "[VEL] delLocalTree: Failed to remove dir on local server. %s, %d",
                     mirrorPath.c_str(), ret);
  }
  return ret;
}

}  // namespace VEL
