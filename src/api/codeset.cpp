// Code-set conversion of file names, real paths, the code-set-aware local
// calls and the root-guarded permission change.
#include "vel/codeset.h"

#include <dirent.h>
#include <fcntl.h>
#include <iconv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <tuple>
#include <utility>

#include <ace/Guard_T.h>
#include <ace/OS_Memory.h>
#include <ace/Thread_Mutex.h>

#include "base/dir_mode.h"
#include "base/safe_str.h"
#include "vel/client.h"
#include "vel/instance.h"
#include "vel/log.h"
#include "vel/paths.h"

namespace VEL {

std::string g_unknownCodeSet = "UNKNOWN";

namespace {

constexpr size_t kPathBufferSize = 4096;
const char* const kUtf8 = "UTF-8";

// A null code-set name is taken as "no conversion".
bool passThrough(const char* coding) { return coding == nullptr || isUtf8(coding); }

// The path as the local file system wants it: unchanged for UTF-8,
// otherwise converted from UTF-8 to `coding`.
std::string localForm(const char* path, const char* coding) {
  std::string converted;
  convertFromUtf8(converted, path, coding);
  return converted;
}

}  // namespace

bool isUtf8(const char* coding) {
  return coding != nullptr &&
         (std::strcmp(coding, "UTF-8") == 0 || std::strcmp(coding, "utf-8") == 0);
}

int32_t codeSetConvert(const std::string& from, const std::string& to, const std::string& input,
                       std::string& output) {
  if (from == to) {
    output = input;
    return 0;
  }
  if (to == g_unknownCodeSet || from == g_unknownCodeSet) {
    return 0;
  }

  // Descriptors are opened once per ordered pair and kept for the life of
  // the process. The cache lock covers the lookup only. glibc keeps
  // conversion buffers inside each descriptor, so a descriptor is used by
  // one thread at a time: each carries a lock of its own for the iconv call.
  struct CachedDescriptor {
    iconv_t cd;
    ACE_Thread_Mutex lock;
  };
  // The map is never destroyed, so the open descriptors stay reachable and
  // no conversion at process exit can meet a destroyed cache.
  static auto* cache = new std::map<std::string, CachedDescriptor>();
  static ACE_Thread_Mutex cacheLock;
  CachedDescriptor* entry = nullptr;
  {
    ACE_Guard<ACE_Thread_Mutex> guard(cacheLock);
    std::string key = from + "|" + to;
    auto it = cache->find(key);
    if (it == cache->end()) {
      iconv_t opened = ::iconv_open(to.c_str(), from.c_str());
      if (opened == reinterpret_cast<iconv_t>(-1)) {
        getLogger()->log(kLogError, "[VEL] codeSetConvert(), iconv_open(%s, %s) failed", to.c_str(),
                         from.c_str());
        return -1;
      }
      it = cache
               ->emplace(std::piecewise_construct, std::forward_as_tuple(key),
                         std::forward_as_tuple())
               .first;
      it->second.cd = opened;
    }
    entry = &it->second;
  }

  size_t inLen = input.size();
  size_t outCap = (inLen + 1) * 2;
  if (outCap < inLen) {
    getLogger()->log(kLogError, "[VEL] codeSetConvert(), olen overflow");
    return -1;
  }
  char* buffer = static_cast<char*>(std::malloc(outCap));
  if (buffer == nullptr) {
    getLogger()->log(kLogError, "[VEL] codeSetConvert(), malloc szTo failed");
    return -1;
  }
  if (memset_s(buffer, outCap, 0, outCap) != 0) {
    getLogger()->log(kLogError, "[VEL] codeSetConvert(), memset_s szTo failed");
  }

  // iconv takes a non-const input pointer; it only reads through it.
  std::string work = input;
  char* inPtr = work.data();
  size_t inLeft = inLen;
  char* outPtr = buffer;
  size_t outLeft = outCap;
  size_t ret = static_cast<size_t>(-1);
  {
    ACE_Guard<ACE_Thread_Mutex> guard(entry->lock);
    ret = ::iconv(entry->cd, &inPtr, &inLeft, &outPtr, &outLeft);
  }
  if (ret != static_cast<size_t>(-1)) {
    output.assign(buffer, strnlen(buffer, outCap));
  }

  if (memset_s(buffer, outCap, 0xCC, outCap) != 0) {
    getLogger()->log(kLogError, "[VEL] codeSetConvert(), memset_s szResult failed");
  }
  std::free(buffer);
  return static_cast<int32_t>(static_cast<uint32_t>(ret & 0xFFFFFFFFu));
}

int32_t convertFromUtf8(std::string& out, const std::string& text, const char* coding) {
  out.clear();
  int32_t ret = codeSetConvert(kUtf8, coding != nullptr ? coding : kUtf8, text, out);
  if (ret != 0) {
    out = text;
  }
  return ret;
}

int32_t convertToUtf8(std::string& out, const std::string& text, const char* coding) {
  out.clear();
  int32_t ret = codeSetConvert(coding != nullptr ? coding : kUtf8, kUtf8, text, out);
  if (ret != 0) {
    out = text;
  }
  return ret;
}

char* handleRealpath(const char* path, char* resolved, const char* coding) {
  if (passThrough(coding)) {
    if (path == nullptr || std::strlen(path) > kPathBufferSize - 1) {
      return nullptr;
    }
    return ::realpath(path, resolved);
  }

  bool allocated = false;
  if (resolved == nullptr) {
    resolved = static_cast<char*>(ACE_OS::malloc(kPathBufferSize));
    if (resolved == nullptr) {
      errno = ENOMEM;
      getLogger()->log(kLogError, "[VEL] handleRealpath(), malloc rpath failed");
      return nullptr;
    }
    allocated = true;
  }

  std::string converted;
  convertFromUtf8(converted, path != nullptr ? path : "", coding);
  char work[kPathBufferSize];
  memset_s(work, sizeof(work), 0, sizeof(work));
  char* found = nullptr;
  if (converted.size() < kPathBufferSize) {
    found = ::realpath(converted.c_str(), work);
  }
  getLogger()->log(kLogError, "[VEL] handleRealpath(), invalid path");

  if (found != nullptr) {
    // The resolved path stays in the local code set.
    std::string text;
    convertToUtf8(text, work, kUtf8);
    if (strncpy_s(resolved, kPathBufferSize, text.c_str(), kPathBufferSize - 1) != 0) {
      getLogger()->log(kLogError, "[VEL] handleRealpath(), strncpy_s failed");
    }
    return resolved;
  }
  if (allocated) {
    ACE_OS::free(resolved);
  }
  getLogger()->log(kLogError, "[VEL] handleRealpath(), realpath failed, return nullptr");
  return nullptr;
}

std::string getRealPath(const std::string& path) {
  char buffer[kPathBufferSize];
  memset_s(buffer, sizeof(buffer), 0, sizeof(buffer));
  if (handleRealpath(path.c_str(), buffer, kUtf8) == nullptr) {
    // The separators of this message are no-break spaces (U+00A0).
    getLogger()->log(kLogError,
                     "[VEL]\xC2\xA0"
                     "getRealPath(),\xC2\xA0"
                     "realpath\xC2\xA0"
                     "error:%d",
                     errno);
    return std::string();
  }
  return std::string(buffer);
}

int handleStat(const char* path, struct stat* buf, const char* coding) {
  if (passThrough(coding) || path == nullptr) {
    return ::stat(path, buf);
  }
  return ::stat(localForm(path, coding).c_str(), buf);
}

int handleLstat(const char* path, struct stat* buf, const char* coding) {
  if (passThrough(coding) || path == nullptr) {
    return ::lstat(path, buf);
  }
  return ::lstat(localForm(path, coding).c_str(), buf);
}

int handleAccess(const char* path, int mode, const char* coding) {
  if (passThrough(coding) || path == nullptr) {
    return ::access(path, mode);
  }
  return ::access(localForm(path, coding).c_str(), mode);
}

int handleMkdir(const char* path, mode_t mode, const char* coding) {
  std::string local;
  if (path != nullptr && !passThrough(coding)) {
    local = localForm(path, coding);
    path = local.c_str();
  }
  int ret = ::mkdir(path, mode);
  // Applied whatever mkdir returned, so that the umask cannot narrow the
  // mode; but only to a directory itself, never through a link or to a file
  // that already held the name.
  (void)chmodDirectory(path, mode);
  return ret;
}

int handleRename(const char* oldPath, const char* newPath, int /*flag*/, const char* coding) {
  if (oldPath == nullptr || newPath == nullptr) {
    return -1;
  }
  if (passThrough(coding)) {
    return ::rename(oldPath, newPath);
  }
  return ::rename(localForm(oldPath, coding).c_str(), localForm(newPath, coding).c_str());
}

int handleRemove(const char* path, const char* coding) {
  if (passThrough(coding) || path == nullptr) {
    return ::remove(path);
  }
  return ::remove(localForm(path, coding).c_str());
}

int handleRmdir(const char* path, const char* coding) {
  if (passThrough(coding) || path == nullptr) {
    return ::rmdir(path);
  }
  return ::rmdir(localForm(path, coding).c_str());
}

DIR* handleOpendir(const char* path, const char* coding) {
  if (passThrough(coding) || path == nullptr) {
    return ::opendir(path);
  }
  return ::opendir(localForm(path, coding).c_str());
}

int handleScandir(const char* dir, struct dirent*** namelist, int (*selector)(const struct dirent*),
                  int (*compar)(const struct dirent**, const struct dirent**), const char* coding) {
  if (passThrough(coding) || dir == nullptr) {
    return ::scandir(dir, namelist, selector, compar);
  }
  return ::scandir(localForm(dir, coding).c_str(), namelist, selector, compar);
}

FILE* handleFopen(const char* path, const char* mode, const char* coding) {
  if (path == nullptr || mode == nullptr) {
    return nullptr;
  }
  if (passThrough(coding)) {
    return std::fopen(path, mode);
  }
  return std::fopen(localForm(path, coding).c_str(), mode);
}

int handleClosedir(DIR* dir) { return ::closedir(dir); }

// readdir_r is deprecated in glibc but is the call this layer wraps.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
int handleReaddir_r(DIR* dir, struct dirent* entry, struct dirent** result, const char* coding) {
  if (result == nullptr) {
    return 1;
  }
  if (passThrough(coding)) {
    return ::readdir_r(dir, entry, result);
  }
  int ret = ::readdir_r(dir, entry, result);
  if (ret == 0 && *result != nullptr) {
    std::string name;
    convertToUtf8(name, (*result)->d_name, coding);
    // A converted name may be longer than the one read (up to twice for a
    // single-byte code set) and must still fit the caller's entry.
    const size_t field = sizeof((*result)->d_name);
    if (name.size() >= field) {
      getLogger()->log(kLogError,
                       "[VEL] handleReaddir_r(): converted name of \"%s\" takes %d bytes, more "
                       "than the %d of an entry",
                       name.c_str(), static_cast<int>(name.size()), static_cast<int>(field - 1));
      *result = nullptr;
      return ENAMETOOLONG;
    }
    strncpy_s((*result)->d_name, field, name.c_str(), name.size());
  }
  return ret;
}
#pragma GCC diagnostic pop

int32_t chmod(const char* path, uint32_t mode) {
  if (path == nullptr) {
    getLogger()->log(kLogError, "[VEL] chmod(%d, %d), bad parameter: NULL path", 0,
                     static_cast<int>(mode));
    return -1;
  }
  if (normalizePath(path, true, '/').empty()) {
    getLogger()->log(kLogError, "[VEL] chmod(%s, %d), cannot operate VELRoot", path,
                     static_cast<int>(mode));
    return -1;
  }
  VELClient* client = getInstance();
  if (client == nullptr) {
    getLogger()->log(kLogError, "[VEL] chmod(%s, %d), Internal Error: no VELClient instance", path,
                     static_cast<int>(mode));
    return -1;
  }
  return client->chmod(std::string(path), mode);
}

}  // namespace VEL
