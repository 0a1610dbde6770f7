// Status queries: from the mirror in local mode, from the service (the
// back-end's node lookup) in remote mode.
#include "vel/query.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>

#include "api/back_end.h"
#include "api/clean_path.h"
#include "vel/client.h"
#include "vel/codeset.h"
#include "vel/instance.h"
#include "vel/log.h"
#include "vel/paths.h"

namespace VEL {

namespace {

constexpr int32_t kNotFoundOnService = -11;
// Permission masks of the remote access check, written as decimal numbers.
constexpr uint32_t kReadMask = 400;
constexpr uint32_t kWriteMask = 200;
constexpr uint32_t kExecMask = 100;

enum class Verdict { kFound, kNotFound, kFailed };

int asInt(const void* pointer) { return static_cast<int>(reinterpret_cast<intptr_t>(pointer)); }

// Asks the back-end for the node and judges the answer. On kFound `info`
// holds the record; every wrapper handed out is released here.
Verdict remoteLookup(VELClient* client, const char* name, const std::string& path,
                     VELFileInfo& info) {
  VELFileInfoWrap* wrap = nullptr;
  int32_t code = client->stat(path, &wrap);
  std::unique_ptr<VELFileInfoWrap> owner(wrap);
  if (wrap == nullptr) {
    getLogger()->log(kLogError,
                     "[VEL] %s: Internal Error, failed to get File Info from VEL server. %s, %d, "
                     "FileInfoWrap is null",
                     name, path.c_str(), code);
    return Verdict::kFailed;
  }
  VELFileInfo* record = wrap->get();
  if (code != 0 || record == nullptr) {
    getLogger()->log(kLogError,
                     "[VEL] %s: Internal Error, failed to get File Info from VEL server. %s, %d, "
                     "%d, %d",
                     name, path.c_str(), code, asInt(wrap), asInt(record));
    return Verdict::kFailed;
  }
  if (record->errNo == kNotFoundOnService) {
    return Verdict::kNotFound;
  }
  if (record->errNo != 0) {
    getLogger()->log(kLogError, "[VEL] %s: Failed to get File Info from VEL server. %s, errCode:%d",
                     name, path.c_str(), record->errNo);
    return Verdict::kFailed;
  }
  info.isFile = record->isFile;
  info.mode = record->mode;
  info.size = record->size;
  info.lastModifyTime = record->lastModifyTime;
  return Verdict::kFound;
}

}  // namespace

int32_t stat(const char* path, struct stat* buf, const char* coding) {
  VELClient* client = backEnd("stat");
  if (client == nullptr) {
    return -1;
  }
  if (client->isLocalOnly() != 0) {
    return handleStat(MirrorPath(path).c_str(), buf, coding);
  }
  if (path == nullptr || buf == nullptr) {
    return -4;
  }
  std::string cleaned = normalizePath(path, true, '/');
  VELFileInfo info;
  int32_t result = -1;
  if (remoteLookup(client, "stat", cleaned, info) == Verdict::kFound) {
    buf->st_mode = info.mode | (info.isFile ? 0x8000u : 0x4000u);
    buf->st_size = static_cast<off_t>(info.size);
    buf->st_mtime = static_cast<time_t>(info.lastModifyTime);
    result = 0;
  }
  getLogger()->log(kLogError, "[VEL] VELClientTavora::stat()->%s, %d, %d", cleaned.c_str(),
                   static_cast<int>(buf->st_mtime), static_cast<int>(buf->st_size));
  return result;
}

int32_t access(const char* path, int mode, const char* coding) {
  VELClient* client = backEnd("access");
  if (client == nullptr) {
    return -1;
  }
  if (client->isLocalOnly() != 0) {
    return handleAccess(MirrorPath(path).c_str(), mode, coding);
  }
  std::string cleaned = normalizePath(path, true, '/');
  if (cleaned.empty()) {
    getLogger()->log(kLogError, "[VEL] access: Internal Error: empty path.");
    return -4;
  }
  VELFileInfo info;
  if (remoteLookup(client, "access", cleaned, info) != Verdict::kFound) {
    return -1;
  }
  switch (mode) {
    case 0:
      return 0;
    case 4:
      return (info.mode & kReadMask) != 0 ? 0 : -1;
    case 2:
      return (info.mode & kWriteMask) != 0 ? 0 : -1;
    case 1:
      return (info.mode & kExecMask) != 0 ? 0 : -1;
    default:
      return -1;
  }
}

int32_t exists(const char* path, const char* coding) {
  VELClient* client = backEnd("exists");
  if (client == nullptr) {
    return 0;
  }
  if (client->isLocalOnly() != 0) {
    return handleAccess(MirrorPath(path).c_str(), F_OK, coding) == 0 ? 1 : 0;
  }
  if (path == nullptr) {
    return 0;
  }
  // Unlike the other queries, a failing lookup is reported as "Not exist".
  VELFileInfoWrap* wrap = nullptr;
  int32_t code = client->stat(path, &wrap);
  std::unique_ptr<VELFileInfoWrap> owner(wrap);
  if (code != 0) {
    getLogger()->log(kLogError,
                     "[VEL] exists: Not exist, failed to get File Info from VEL server. %s, %d",
                     path, code);
    return 0;
  }
  if (wrap == nullptr) {
    getLogger()->log(kLogError,
                     "[VEL] exists: Internal Error, failed to get File Info from VEL server. %s, "
                     "%d, FileInfoWrap is null",
                     path, 0);
    return 0;
  }
  VELFileInfo* record = wrap->get();
  if (record == nullptr) {
    getLogger()->log(kLogError,
                     "[VEL] exists: Internal Error, failed to get File Info from VEL server. %s, "
                     "%d, %d, %d",
                     path, 0, asInt(wrap), asInt(record));
    return 0;
  }
  if (record->errNo == kNotFoundOnService) {
    getLogger()->log(kLogError,
                     "[VEL] exists: Not exist, failed to get File Info from VEL server. %s, %d",
                     path, 0);
    return 0;
  }
  if (record->errNo != 0) {
    getLogger()->log(kLogError,
                     "[VEL] exists: Failed to get File Info from VEL server. %s, errCode:%d", path,
                     record->errNo);
    return 0;
  }
  getLogger()->log(kLogDebug, "[VEL] exists: get File Info from VEL server. %s, %d", path, 0);
  return 1;
}

namespace {

// isFile / isDirectory share everything but the bit and the remote answer.
int32_t typeQuery(const char* name, const char* path, const char* coding, bool wantFile) {
  VELClient* client = backEnd(name);
  if (client == nullptr) {
    return 0;
  }
  if (client->isLocalOnly() != 0) {
    const MirrorPath mirror(path);
    struct stat st;
    if (handleStat(mirror.c_str(), &st, coding) != 0) {
      getLogger()->log(kLogDebug, "[VEL] getLocalFileOrDirInfo() handleStat(%s), errno:%d",
                       mirror.c_str(), errno);
      return 0;
    }
    return (st.st_mode & (wantFile ? 0x8000u : 0x4000u)) != 0 ? 1 : 0;
  }
  if (path == nullptr) {
    return 0;
  }
  VELFileInfo info;
  if (remoteLookup(client, name, path, info) != Verdict::kFound) {
    return 0;
  }
  return (wantFile ? info.isFile : !info.isFile) ? 1 : 0;
}

}  // namespace

int32_t isFile(const char* path, const char* coding) {
  return typeQuery("isFile", path, coding, true);
}

int32_t isDirectory(const char* path, const char* coding) {
  return typeQuery("isDirectory", path, coding, false);
}

int32_t getmod(const char* path, const char* coding) {
  VELClient* client = backEnd("getmod");
  if (client == nullptr) {
    return -1;
  }
  if (client->isLocalOnly() != 0) {
    const MirrorPath mirror(path);
    struct stat st;
    int ret = handleStat(mirror.c_str(), &st, coding);
    if (ret != 0) {
      getLogger()->log(kLogError, "[VEL] getmod: Failed to get File stat. %s, %d", mirror.c_str(),
                       ret);
      return -1;
    }
    return static_cast<int32_t>(st.st_mode);
  }
  if (path == nullptr) {
    return -1;
  }
  VELFileInfo info;
  switch (remoteLookup(client, "getmod", path, info)) {
    case Verdict::kFound:
      return static_cast<int32_t>(info.mode);
    case Verdict::kNotFound:
      getLogger()->log(kLogError,
                       "[VEL] getmod: Failed to get File Info from VEL server. %s, file not exist.",
                       path);
      return -1;
    default:
      return -1;
  }
}

bool getLocalFileOrDirInfo(const std::string& mirrorPath, bool* isFile, bool* isDir) {
  struct stat st;
  if (::stat(mirrorPath.c_str(), &st) != 0) {
    getLogger()->log(kLogDebug, "[VEL] getLocalFileOrDirInfo() ACE_OS::stat(%s), errno:%d",
                     mirrorPath.c_str(), errno);
    return false;
  }
  if (isDir != nullptr) {
    *isDir = (st.st_mode & 0x4000u) != 0;
  }
  if (isFile != nullptr) {
    *isFile = (st.st_mode & 0x8000u) != 0;
  }
  return true;
}

}  // namespace VEL
