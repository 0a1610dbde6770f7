// Open/close synchronisation around file access, and the explicit pull and
// push of paths and trees between the mirror and the service.
//
// The hooks only decide when and for which path the back-end is asked to
// synchronise; the back-end does the remote work. No hook ever stops the
// local operation: failures are logged and reported through the result.
#include "vel/hooks.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <list>
#include <mutex>
#include <string>
#include <utility>

#include "api/back_end.h"
#include "api/clean_path.h"
#include "api/push_tree.h"
#include "base/tree_depth.h"
#include "vel/codeset.h"
#include "vel/instance.h"
#include "vel/listing.h"
#include "vel/local_perm.h"
#include "vel/log.h"
#include "vel/paths.h"

#define VEL_HOOK_LOG(level, ...)                             \
  do {                                                       \
    if (::VEL::LogInterface* hookLog = ::VEL::getLogger()) { \
      hookLog->log(level, __VA_ARGS__);                      \
    }                                                        \
  } while (0)

namespace VEL {

namespace {

// Stream open-mode bits as the hooks test them.
constexpr int32_t kModeApp = 1;
constexpr int32_t kModeIn = 8;
constexpr int32_t kModeOut = 16;
constexpr int32_t kModeTrunc = 32;

constexpr mode_t kRegularFileBit = 0x8000;
constexpr mode_t kDirectoryBit = 0x4000;

// The open-file registry lives in the back-end and has no lock of its own;
// every access from fopen()/fclose() goes through this mutex so that
// concurrent opens and closes never race on the map.
std::mutex& registryMutex() {
  static std::mutex mutex;
  return mutex;
}

// Brings the parent directory of `path` into the mirror; the result is
// deliberately ignored (a file opened for writing is never downloaded).
int32_t syncParent(const char* path, const char* function) {
  VELClient* client = backEnd(function);
  if (client == nullptr) {
    return -1;
  }
  client->syncNodeFromRemote(getParentPath(path), nullptr);
  return 0;
}

int32_t syncNodeBeforeAccess(const char* path, const char* function, const char* what) {
  VELClient* client = backEnd(function);
  if (client == nullptr) {
    return -1;
  }
  int32_t rtn = client->syncNodeFromRemote(path, nullptr);
  if (rtn != 0) {
    VEL_HOOK_LOG(kLogError, "[VEL] %s() Failed to sync file to local:%s, errCode:%d", what, path,
                 rtn);
  }
  return rtn;
}

// Uploads one entry of the tree walk: a regular file is sent, anything else
// is created as a directory on the service with the mirror's permissions.
int32_t uploadEntry(VELClient* client, const struct stat& st,
                    const std::pair<std::string, std::string>& entry) {
  if ((st.st_mode & kRegularFileBit) != 0) {
    VEL_HOOK_LOG(kLogError, "[SHOWINFO] pair.first is %s, pair.second is %s", entry.first.c_str(),
                 entry.second.c_str());
    int32_t rtn = client->putFileToRemote(entry.first);
    if (rtn != 0) {
      VEL_HOOK_LOG(kLogError, "[VEL] syncToServer() Failed to sync File %s, errCode=%d",
                   entry.first.c_str(), rtn);
    }
    return rtn;
  }
  int32_t permission = getLocalPermission(entry.second);
  if (permission < 0) {
    permission = -1;
  }
  int32_t rtn = client->newDir(entry.first, static_cast<uint32_t>(permission), true);
  if (rtn == -12) {
    return 0;
  }
  if (rtn != 0) {
    VEL_HOOK_LOG(kLogError, "[VEL] syncToServer() Failed to sync Dir %s, errCode=%d",
                 entry.first.c_str(), rtn);
    return rtn;
  }
  return 0;
}

}  // namespace

int32_t beforeRead(const char* path) {
  if (path == nullptr) {
    VEL_HOOK_LOG(kLogError, "[VEL] beforeRead(): null input");
    return -4;
  }
  VEL_HOOK_LOG(kLogDebug, "[VEL] beforeRead() Before read file:%s", path);
  return syncNodeBeforeAccess(path, "beforeRead()", "beforeRead");
}

int32_t beforeWrite(const char* path) {
  if (path == nullptr) {
    VEL_HOOK_LOG(kLogError, "[VEL] beforeWrite(): null input");
    return -4;
  }
  VEL_HOOK_LOG(kLogDebug, "[VEL] beforeWrite() Before write file:%s", path);
  return syncNodeBeforeAccess(path, "beforeWrite()", "beforeWrite");
}

int32_t afterRead(const char* path) {
  if (path == nullptr) {
    VEL_HOOK_LOG(kLogError, "[VEL] afterRead(): null input");
    return -4;
  }
  VEL_HOOK_LOG(kLogDebug, "[VEL] afterRead() After read file:%s", path);
  std::string mirror = getMirrorPath(path);
  struct timespec times[2];
  times[0].tv_sec = 0;
  times[0].tv_nsec = UTIME_NOW;
  times[1] = times[0];
  int rtn = ::utimensat(AT_FDCWD, mirror.c_str(), times, 0);
  if (rtn != 0) {
    VEL_HOOK_LOG(kLogError, "[VEL] afterRead() Failed to update timestamp:%s, rtn:%d",
                 mirror.c_str(), rtn);
    return -1;
  }
  return 0;
}

int32_t afterWrite(const char* path) {
  if (path == nullptr) {
    VEL_HOOK_LOG(kLogError, "[VEL] afterWrite(): null input");
    return -4;
  }
  VEL_HOOK_LOG(kLogDebug, "[VEL] afterWrite() After write file:%s", path);
  VELClient* client = backEnd("afterWrite()");
  if (client == nullptr) {
    return -1;
  }
  int32_t rtn = client->putFileToRemote(path);
  if (rtn != 0) {
    // The message names beforeRead on purpose: log readers search for it.
    VEL_HOOK_LOG(kLogError, "[VEL] beforeRead() Failed to sync file to server:%s, errCode:%d", path,
                 rtn);
  }
  return rtn;
}

int32_t beforeOpenStream(const char* path, int32_t mode) {
  if ((mode & (kModeIn | kModeApp)) != 0 && (mode & kModeTrunc) == 0) {
    return beforeRead(path);
  }
  if (path == nullptr) {
    VEL_HOOK_LOG(kLogError, "[VEL] beforeOpenStream(): null input");
    return -4;
  }
  return syncParent(path, "beforeOpenStream()");
}

int32_t beforeOpenFile(const char* path, const char* mode) {
  if (mode != nullptr && std::strpbrk(mode, "ra") != nullptr) {
    return beforeRead(path);
  }
  if (path == nullptr) {
    VEL_HOOK_LOG(kLogError, "[VEL] beforeOpenFile(): null input");
    return -4;
  }
  return syncParent(path, "beforeOpenFile()");
}

int32_t afterCloseStream(const char* path, int32_t mode) {
  if ((mode & (kModeApp | kModeOut)) != 0) {
    return afterWrite(path);
  }
  return afterRead(path);
}

int32_t afterCloseFile(const char* path, const char* mode) {
  if (mode != nullptr && std::strpbrk(mode, "wa+") != nullptr) {
    return afterWrite(path);
  }
  return afterRead(path);
}

FILE* fopen(const char* path, const char* mode, const char* coding) {
  if (path == nullptr || mode == nullptr) {
    VEL_HOOK_LOG(kLogError, "[VEL] fopen(), bad parameter: %d %d",
                 static_cast<int>(reinterpret_cast<intptr_t>(path)),
                 static_cast<int>(reinterpret_cast<intptr_t>(mode)));
    return nullptr;
  }
  std::string cleaned = normalizePath(path, true, '/');
  if (cleaned.empty()) {
    VEL_HOOK_LOG(kLogError, "[VEL] fopen(), bad parameter: null vel path:%s", path);
    return nullptr;
  }
  int32_t rtn = beforeOpenFile(cleaned.c_str(), mode);
  if (rtn != 0) {
    // A failed download does not stop the open: the local copy is used.
    VEL_HOOK_LOG(kLogError, "[VEL] fopen(), failed to call beforeOpenStream: %s(%s), errCode:%d",
                 cleaned.c_str(), mode, rtn);
  }
  FILE* stream = handleFopen(MirrorPath(cleaned.c_str()).c_str(), mode, coding);
  if (stream != nullptr) {
    VELClient* client = getInstance();
    if (client != nullptr && client->isLocalOnly() == 0) {
      std::lock_guard<std::mutex> guard(registryMutex());
      client->putFileOpenMode(stream, cleaned, mode);
    }
  }
  return stream;
}

int fclose(FILE* stream) {
  std::string path;
  std::string mode;
  bool known = false;
  VELClient* client = getInstance();
  if (client != nullptr && stream != nullptr) {
    std::lock_guard<std::mutex> guard(registryMutex());
    known = client->takeFileOpenMode(stream, path, mode);
  }
  if (!known) {
    VEL_HOOK_LOG(kLogError, "[VEL] fclose(), failed to call getFileOpenMode()");
  } else if (client->isLocalOnly() == 0 && !path.empty()) {
    int32_t rtn = afterCloseFile(path.c_str(), mode.c_str());
    if (rtn != 0) {
      VEL_HOOK_LOG(kLogError,
                   "[VEL] fclose(), failed to call VEL::afterCloseFile: %s(%s), errCode:%d",
                   path.c_str(), mode.c_str(), rtn);
    }
  }
  int rtn = EOF;
  if (stream != nullptr) {
    rtn = std::fclose(stream);
  } else {
    errno = EINVAL;  // the system fclose() has no defined answer for null
  }
  if (rtn != 0) {
    VEL_HOOK_LOG(kLogError, "[VEL] fclose(), failed to call VEL::fclose()");
  }
  return rtn;
}

int32_t syncFromServer(const std::string& path, bool withTree) {
  VELClient* client = backEnd("syncFromServer()");
  if (client == nullptr) {
    return -1;
  }
  if (client->isLocalOnly() != 0) {
    return 0;
  }
  std::string cleaned = normalizePath(path, true, '/');
  int32_t rtn = client->syncNodeFromRemote(cleaned, nullptr);
  if (rtn == 0) {
    return withTree ? client->syncTreeFromRemote(cleaned) : 0;
  }
  if (rtn != -11) {
    return rtn;
  }
  if (cleaned.empty()) {
    return 0;
  }
  // The service has no such node: the mirror copy is in its way and is moved
  // aside, never deleted.
  std::string mirror = getMirrorPath(cleaned);
  int32_t removed = safeRemoveLocalObj(mirror);
  if (removed != 0) {
    VEL_HOOK_LOG(kLogError, "[VEL] syncFromServer: Failed to delete conflict file:%s, errCode:%d",
                 mirror.c_str(), removed);
  }
  return removed;
}

int32_t pushTree(VELClient* client, const std::string& path, bool recursive, bool strict) {
  struct Entry {
    std::pair<std::string, std::string> paths;  // service path, mirror path
    int32_t depth;                              // levels below `path`
  };
  const int32_t maxDepth = recursive ? maxTreeDepth() : 0;
  const int64_t maxEntries = maxTreeEntries();
  int64_t visited = 0;
  // Breadth-first: a directory is created on the service before any of its
  // children are sent.
  std::deque<Entry> pending;
  pending.push_back(Entry{{normalizePath(path, true, '/'), getMirrorPath(path)}, 0});
  int32_t result = 0;
  while (!pending.empty()) {
    Entry entry = std::move(pending.front());
    pending.pop_front();
    if (++visited > maxEntries) {
      VEL_HOOK_LOG(kLogError, "[VEL] syncToServer() Stopped at the entry bound %lld, not sent: %s",
                   static_cast<long long>(maxEntries), entry.paths.second.c_str());
      return strict ? -1 : result;
    }
    const std::string& service = entry.paths.first;
    const std::string& local = entry.paths.second;
    VEL_HOOK_LOG(kLogDebug, "[VEL] syncToServer() %s %s", service.c_str(), local.c_str());
    struct stat st;
    std::memset(&st, 0, sizeof(st));
    if (handleLstat(local.c_str(), &st, "UTF-8") != 0) {
      VEL_HOOK_LOG(kLogError, "[VEL] syncToServer() Failed to sync %s, File not exist:%s",
                   service.c_str(), local.c_str());
      if (strict) {
        return -1;
      }
      if (result == 0) {
        result = -11;
      }
      continue;
    }
    // A link may lead out of the mirror or back into the tree (a -> .).
    if (S_ISLNK(st.st_mode)) {
      VEL_HOOK_LOG(kLogError, "[VEL] syncToServer() Skipped symbolic link %s", local.c_str());
      continue;
    }
    // Leniently, the last entry's result wins: a later success clears an
    // earlier failure.
    result = uploadEntry(client, st, entry.paths);
    if (strict && result != 0) {
      return result;
    }
    if (!recursive || (st.st_mode & kDirectoryBit) == 0) {
      continue;
    }
    if (entry.depth >= maxDepth) {
      VEL_HOOK_LOG(kLogError,
                   "[VEL] syncToServer() Stopped at the depth bound %d, not sent below %s",
                   maxDepth, local.c_str());
      if (strict) {
        return -1;
      }
      continue;
    }
    std::list<std::string> names;
    readLocalDir(local, names, false, false, "UTF-8");
    for (const std::string& name : names) {
      pending.push_back(Entry{{service.empty() ? name : service + "/" + name, local + "/" + name},
                              entry.depth + 1});
    }
  }
  return result;
}

int32_t syncToServer(const std::string& path, bool recursive) {
  VELClient* client = backEnd("syncToServer()");
  if (client == nullptr) {
    return -1;
  }
  if (client->isLocalOnly() != 0) {
    return 0;
  }
  return pushTree(client, path, recursive, false);
}

}  // namespace VEL
