// VELClientTavora: the agent connection step, the node lookup, the record
// factory of the status queries and the mutating operations (upload,
// renames, permission change, removals, directory creation). Every
// operation opens its own agent connection and closes it before returning.
#include "vel/client_tavora.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

#include "api/push_tree.h"
#include "base/dir_mode.h"
#include "client/tavora_internal.h"
#include "vel/client_config.h"
#include "vel/log.h"
#include "vel/mutations.h"
#include "vel/paths.h"
#include "vel/records.h"
#include "vel/tarn_client.h"

namespace VEL {

using namespace tavora;

namespace {

constexpr uint32_t kDefaultDirMode = 0750;
constexpr uint32_t kDefaultFileMode = 0640;
constexpr int32_t kConnectTimeoutMs = 12000;
const char* const kTimeFormat = "%Y-%m-%dT%H:%M:%S%z";

// The service's time text as seconds; 0 when it cannot be read. The text
// carries its UTC offset (strptime puts it in tm_gmtoff), so the time is
// taken as UTC and the offset subtracted: the client's own time zone plays
// no part, and no call reads it (mktime would run tzset, which rewrites
// process-wide state on every call).
int64_t parseServiceTime(const std::string& text) {
  struct tm parts;
  std::memset(&parts, 0, sizeof(parts));
  const char* end = ::strptime(text.c_str(), kTimeFormat, &parts);
  if (end == nullptr) {
    return 0;
  }
  const long offset = parts.tm_gmtoff;
  time_t seconds = ::timegm(&parts);
  return seconds == static_cast<time_t>(-1) ? 0 : static_cast<int64_t>(seconds) - offset;
}

}  // namespace

namespace tavora {

std::string agentSocketPath() {
  const char* root = std::getenv("UDS_ROOT_OSSUSER");
  return std::string(root != nullptr ? root : "") + "/velfileagent/velfileagent.sock";
}

}  // namespace tavora

VELClientTavora::~VELClientTavora() = default;

std::unique_ptr<TarnClient> VELClientTavora::TarnGetClient() {
  std::string socketPath = agentSocketPath();
  TarnConnOptions options;
  options.type = 1;
  options.host = "127.0.0.1";
  options.connectTimeoutMs = kConnectTimeoutMs;
  options.reserved = 0;
  // 0 lets the connection take the time-out from the environment.
  options.commandTimeoutMs = config_ != nullptr ? config_->cmdTimeout : 0;
  std::unique_ptr<TarnClient> client(new (std::nothrow) TarnClient(options, socketPath));
  if (!client) {
    VEL_TAVORA_LOG(kLogDebug, "[VEL] TarnGetClient() Fail to new a TarnClient, no enough momery");
    return nullptr;
  }
  if (client->connect(1) != 0) {
    VEL_TAVORA_LOG(kLogDebug, "[VEL] TarnGetClient() Begin report status, request is %s.",
                   socketPath.c_str());
    return nullptr;
  }
  return client;
}

int32_t VELClientTavora::getNodeInfoFromRemote(const std::string& path, VELFileInfoWrap* out) {
  return guarded("getNodeInfoFromRemote", [&]() -> int32_t {
    if (out == nullptr) {
      return kBadArgument;
    }
    std::unique_ptr<TarnClient> client = TarnGetClient();
    if (!client) {
      return kNoAgent;
    }
    VELFileInfo* info = new (std::nothrow) VELFileInfo();
    if (info == nullptr) {
      return kLocalFailure;
    }
    out->reset(info);
    TarnMetaData meta;
    int32_t modeKey = -1;
    int32_t rtn = client->TarnGetMetaData(path, meta, &modeKey);
    if (rtn != 0) {
      VEL_TAVORA_LOG(
          kLogError,
          "[VEL] VELClientTavora::getNodeInfoFromRemote() Failed to get node \"%s\":%s, errCode=%d",
          path.c_str(), client->serviceName().c_str(), rtn);
      return rtn;
    }
    info->velPath = path;
    info->isFile = meta.Kind == "file";
    info->size = meta.Size;
    info->lastModifyTime = parseServiceTime(meta.LastModifiedTime);
    if (modeKey >= 0) {
      info->mode = static_cast<uint32_t>(modeKey);
    } else {
      info->mode = info->isFile ? kDefaultFileMode : kDefaultDirMode;
    }
    info->errNo = 0;
    VEL_TAVORA_LOG(kLogError,
                   "[VEL] VELClientTavora::getNodeInfoFromRemote()->%s, %d, %d, mode :%d",
                   path.c_str(), static_cast<int32_t>(info->lastModifyTime),
                   static_cast<int32_t>(info->size), static_cast<int32_t>(info->mode));
    return 0;
  });
}

int32_t VELClientTavora::stat(const std::string& path, VELFileInfoWrap** out) {
  return guarded("stat", [&]() -> int32_t {
    if (out == nullptr) {
      return kBadArgument;
    }
    if (*out == nullptr) {
      *out = new (std::nothrow) VELFileInfoWrap();
      if (*out == nullptr) {
        return kLocalFailure;
      }
    }
    int32_t rtn = getNodeInfoFromRemote(path, *out);
    if (rtn != 0) {
      (*out)->reset();
      return rtn;
    }
    if ((*out)->get() == nullptr) {
      VELFileInfo* empty = new (std::nothrow) VELFileInfo();
      if (empty == nullptr) {
        return kLocalFailure;
      }
      empty->lastModifyTime = static_cast<int64_t>(::time(nullptr));
      (*out)->reset(empty);
    }
    return 0;
  });
}

int32_t VELClientTavora::forgetNode(const std::string& path) {
  return guarded("forgetNode", [&]() -> int32_t {
    nodesLock_.acquire();
    nodes_.erase(path);
    nodesLock_.release();
    return 0;
  });
}

int32_t VELClientTavora::putFileToRemote(const std::string& path) {
  return guarded("putFileToRemote", [&]() -> int32_t {
    std::unique_ptr<TarnClient> client = TarnGetClient();
    if (!client) {
      return kNoAgent;
    }
    int32_t rtn = client->TarnUploadLocal(path, "");
    if (rtn != 0) {
      VEL_TAVORA_LOG(
          kLogError,
          "[VEL] VELClientTavora::putFileToRemote() Failed to uploadloacal:%s, errCode:%d",
          path.c_str(), rtn);
    }
    return rtn;
  });
}

// Both file renames: "tarn.move" (slot 14) or "tarn.move_cache" (slot 16).
int32_t VELClientTavora::moveOnRemote(const std::string& src, const std::string& dst, bool cache) {
  std::unique_ptr<TarnClient> client = TarnGetClient();
  if (!client) {
    VEL_TAVORA_LOG(kLogError,
                   "[TARN] VELClientTavora::rename() Failed to get client :%s->%s, errCode=%d",
                   src.c_str(), dst.c_str(), kNoConnection);
    return kNoConnection;
  }
  int32_t rtn = cache ? client->TarnFSRename(src, dst) : client->TarnMove(src, dst);
  if (rtn != 0) {
    VEL_TAVORA_LOG(kLogError, "[TARN] VELClientTavora::rename() Failed to move:%s->%s, errCode=%d",
                   src.c_str(), dst.c_str(), rtn);
  }
  return rtn;
}

int32_t VELClientTavora::rename(const std::string& src, const std::string& dst) {
  return guarded("rename", [&]() -> int32_t { return moveOnRemote(src, dst, false); });
}

int32_t VELClientTavora::renameCache(const std::string& src, const std::string& dst) {
  return guarded("rename", [&]() -> int32_t { return moveOnRemote(src, dst, true); });
}

// The whole tree is first made complete in the mirror, moved there,
// uploaded under its new name, and only then removed under its old name on
// the service, so that the service never lacks a copy. Both walks are the
// strict ones: a node that did not reach the mirror, or an upload that
// failed, stops the rename before anything is removed; and so does a node
// that the service has under the old name but not under the new one.
int32_t VELClientTavora::RenameDir(const std::string& src, const std::string& dst) {
  return guarded("RenameDir", [&]() -> int32_t {
    VEL_TAVORA_LOG(kLogError, "[TARN] VELClientTavora::RenameDir() move:%s->%s", src.c_str(),
                   dst.c_str());
    std::string localSrc = getMirrorPath(src);
    std::string localDst = getMirrorPath(dst);
    struct stat st;
    if (::stat(localDst.c_str(), &st) == 0) {
      // An occupied destination is reported as success and left alone.
      VEL_TAVORA_LOG(
          kLogError,
          "[TARN] VELClientTavora::RenameDir() stat: [%s] exist, dest directory not empty",
          localDst.c_str());
      return 0;
    }
    const std::string cleanedSrc = normalizePath(src, true, '/');
    int32_t rtn = syncNodeFromRemote(cleanedSrc, nullptr);
    if (rtn == 0) {
      rtn = pullTree(cleanedSrc);
    }
    if (rtn != 0) {
      std::printf("syncFromServer failed in RenameDir!\n");
      std::fflush(stdout);
      return rtn;
    }
    if (std::rename(localSrc.c_str(), localDst.c_str()) != 0) {
      VEL_TAVORA_LOG(kLogError, "[TARN] VELClientTavora::RenameDir() std::rename failed(%s)",
                     std::strerror(errno));
      return kLocalFailure;
    }
    rtn = pushTree(this, dst, true, true);
    if (rtn != 0) {
      VEL_TAVORA_LOG(kLogError, "[TARN] VELClientTavora::RenameDir() syncToServer failed(%d)", rtn);
      return rtn;
    }
    // The push skips what it must not follow (a link standing in the mirror
    // for a service directory), so the service itself is asked whether it
    // now holds the whole tree under the new name.
    const std::string cleanedDst = normalizePath(dst, true, '/');
    std::string missing;
    rtn = holdsTreeUnder(cleanedSrc, cleanedDst, missing);
    if (rtn != 0) {
      if (!missing.empty()) {
        VEL_TAVORA_LOG(kLogError,
                       "[TARN] VELClientTavora::RenameDir() %s is not on the service under %s, %s "
                       "is kept there",
                       missing.c_str(), cleanedDst.c_str(), cleanedSrc.c_str());
      } else {
        VEL_TAVORA_LOG(kLogError,
                       "[TARN] VELClientTavora::RenameDir() Failed to compare %s with %s on the "
                       "service (%d), %s is kept there",
                       cleanedSrc.c_str(), cleanedDst.c_str(), rtn, cleanedSrc.c_str());
      }
      return rtn;
    }
    rtn = delTree(src.c_str(), "UTF-8");
    if (rtn != 0) {
      VEL_TAVORA_LOG(kLogError, "[TARN] VELClientTavora::RenameDir() delTree failed(%d)", rtn);
      return rtn;
    }
    VEL_TAVORA_LOG(kLogError, "[TARN] VELClientTavora::RenameDir() move success:%s->%s",
                   src.c_str(), dst.c_str());
    return 0;
  });
}

// The service first, then the mirror. The four progress lines on standard
// output are what the command-line tool shows.
int32_t VELClientTavora::chmod(const std::string& path, uint32_t mode) {
  return guarded("chmod", [&]() -> int32_t {
    const int32_t shownMode = static_cast<int32_t>(mode);
    std::unique_ptr<TarnClient> client = TarnGetClient();
    if (!client) {
      VEL_TAVORA_LOG(kLogError,
                     "[TARN] VELClientTavora::chmod(%s, %d) Failed to get client :%s, errCode=%d",
                     path.c_str(), shownMode, agentSocketPath().c_str(), kNoConnection);
      return kNoConnection;
    }
    std::string cleaned = normalizePath(path, true, '/');
    int32_t rtn = client->TarnChmod(cleaned, std::to_string(mode));
    client.reset();
    if (rtn != 0) {
      std::printf("chmod remote fail, %s -> mod:%d.\n", path.c_str(), shownMode);
      std::fflush(stdout);
      VEL_TAVORA_LOG(kLogError, "[TARN] VELClientTavora::chmod(%s, %d) Failed to chmod, errCode=%d",
                     path.c_str(), shownMode, rtn);
      return rtn;
    }
    std::printf("chmod remote success, %s -> mod:%d.\n", path.c_str(), shownMode);
    std::fflush(stdout);

    std::string local = getMirrorPath(path);
    struct stat st;
    if (::lstat(local.c_str(), &st) != 0) {
      std::printf("chmod local fail, %s do not exist on local.\n", path.c_str());
      std::fflush(stdout);
      VEL_TAVORA_LOG(
          kLogError,
          "[TARN] VELClientTavora::chmod(%s, %d) Failed to chmod on local server, errCode=%d",
          path.c_str(), shownMode, kMissing);
      return kMissing;
    }
    if (S_ISLNK(st.st_mode)) {
      // A link standing in the mirror for the service's node keeps its
      // target's mode: the target may lie outside the mirror. The service
      // has the mode, and that is the success reported.
      VEL_TAVORA_LOG(kLogError,
                     "[TARN] VELClientTavora::chmod(%s, %d) Kept the mode of %s, a symbolic link",
                     path.c_str(), shownMode, local.c_str());
      return 0;
    }
    if (chmodNoFollow(local.c_str(), mode) != 0) {
      VEL_TAVORA_LOG(kLogError,
                     "[TARN] VELClientTavora::chmod(%s, %d) Failed to chmod on local server, "
                     "std::chmod errno=%d",
                     path.c_str(), shownMode, errno);
      return kLocalFailure;
    }
    std::printf("chmod local success, %s -> mod:%d.\n", path.c_str(), shownMode);
    std::fflush(stdout);
    return 0;
  });
}

// "tarn.remove" of one node (flag text "false") or of a whole tree ("true").
int32_t VELClientTavora::removeOnRemote(const std::string& path, bool tree) {
  std::unique_ptr<TarnClient> client = TarnGetClient();
  if (!client) {
    return kNoAgent;
  }
  int32_t rtn = client->TarnRemoveFile(path, tree ? "true" : "false");
  if (rtn != 0) {
    VEL_TAVORA_LOG(
        kLogError, "[VEL] VELClientTavora::%s() Failed to do action \"%s\":%s, errCode=%d",
        tree ? "delDir" : "removeObjectOnRemote", tree ? "delTree" : "delNode", path.c_str(), rtn);
  }
  return rtn;
}

int32_t VELClientTavora::removeObjectOnRemote(const std::string& path) {
  return guarded("removeObjectOnRemote", [&]() -> int32_t { return removeOnRemote(path, false); });
}

int32_t VELClientTavora::delDir(const std::string& path, bool /*flag*/) {
  return guarded("delDir", [&]() -> int32_t { return removeOnRemote(path, true); });
}

// Creates the directory on the service, then in the mirror from a record
// made here (no metadata round trip for it), then sets the mode on both
// sides; on the service also when the mirror's directory could not be
// made, and a service that cannot keep modes leaves it out without failing
// the creation (the mirror has it). The agent accepts an existing directory
// silently, so the service is asked first whether it already holds one:
// then the result is -12 ("already exists"), which callers treat as
// success or as "exists" as they need. The recursive flag is not needed:
// the service creates missing levels and the mirror sync fetches them.
int32_t VELClientTavora::newDir(const std::string& path, uint32_t mode, bool /*recursive*/) {
  return guarded("newDir", [&]() -> int32_t {
    std::unique_ptr<TarnClient> client = TarnGetClient();
    if (!client) {
      return kNoAgent;
    }
    bool existed = false;
    {
      VELFileInfoWrap known;
      if (getNodeInfoFromRemote(path, &known) == 0 && known.get() != nullptr &&
          !known.get()->isFile) {
        existed = true;
      }
    }
    int32_t rtn = client->TarnCreateInfo(path, "dir");
    client.reset();
    if (rtn == 0 && existed) {
      rtn = kDirExists;
    }
    if (rtn != 0 && rtn != kDirExists) {
      VEL_TAVORA_LOG(kLogError, "[VEL] VELClientTavora::newDir() Failed to newDir:%s, errCode=%d",
                     path.c_str(), rtn);
      return rtn;
    }
    VELFileInfo info;
    info.velPath = path;
    info.isFile = false;
    info.mode = mode;
    VELFileInfoMap infoMap;
    infoMap[path] = &info;
    int32_t synced = syncNodeFromRemote(path, &infoMap);
    if (synced != 0) {
      VEL_TAVORA_LOG(kLogError,
                     "[VEL] VELClientTavora::newDir() Failed to create local dir:%s, errCode=%d",
                     path.c_str(), synced);
    }
    // The service's folder gets its mode even when the mirror's could not
    // be made; the mirror's failure is then what the caller hears.
    int32_t changed = chmod(path, mode);
    if (synced != 0) {
      return synced;
    }
    // A service that cannot keep the mode (its reply says why) keeps the
    // directory all the same: a directory without its mode is no reason to
    // report it missing.
    if (changed != 0) {
      VEL_TAVORA_LOG(kLogError,
                     "[VEL] VELClientTavora::newDir() The service did not take the mode of %s, "
                     "errCode=%d; the directory is made",
                     path.c_str(), changed);
    }
    return rtn;
  });
}

}  // namespace VEL
