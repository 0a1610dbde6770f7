// Directory listing: the mirror directory in local mode, the service's
// listing (handed out from memory) in remote mode.
#include "vel/listing.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include <ace/OS_Memory.h>

#include "api/back_end.h"
#include "api/clean_path.h"
#include "base/safe_str.h"
#include "vel/client.h"
#include "vel/codeset.h"
#include "vel/instance.h"
#include "vel/log.h"
#include "vel/mutations.h"
#include "vel/paths.h"

namespace VEL {

namespace {

constexpr size_t kNameField = 256;
// Size of a record that scandir allocates in remote mode, beyond the name.
constexpr size_t kDirentExtra = 281;
constexpr uint32_t kLocalDirMode = 488;  // 0750
const char* const kUtf8 = "UTF-8";

std::string baseOf(const std::string& text) {
  size_t cut = text.find_last_of("/\\");
  return cut == std::string::npos ? text : text.substr(cut + 1);
}

// qsort wants a comparator over void pointers; the caller's works on
// dirent pointers. The trampoline carries it per thread.
thread_local int (*t_compar)(const struct dirent**, const struct dirent**) = nullptr;

int compareEntries(const void* a, const void* b) {
  auto* left = const_cast<const struct dirent**>(static_cast<const struct dirent* const*>(a));
  auto* right = const_cast<const struct dirent**>(static_cast<const struct dirent* const*>(b));
  return t_compar(left, right);
}

}  // namespace

VEL_DIR* opendir(const char* path, const char* coding) {
  if (path == nullptr) {
    getLogger()->log(kLogError, "[VEL] opendir(), bad parameter: NULL path");
    return nullptr;
  }
  VELClient* client = backEnd("opendir");
  if (client == nullptr) {
    return nullptr;
  }
  VEL_DIR* handle = new (std::nothrow) VEL_DIR();
  if (handle == nullptr) {
    return nullptr;
  }
  if (client->isLocalOnly() != 0) {
    handle->dir = handleOpendir(MirrorPath(path).c_str(), coding);
    if (handle->dir == nullptr) {
      delete handle;
      return nullptr;
    }
    return handle;
  }

  handle->entries = new (std::nothrow) std::list<std::string>();
  if (handle->entries == nullptr) {
    delete handle;
    return nullptr;
  }
  int32_t code = client->listDir(path, 1, false, *handle->entries);
  if (code != 0) {
    getLogger()->log(kLogError, "[VEL] opendir(), failed to list dir on VEL server. %s, errCode=%d",
                     path, code);
    delete handle->entries;
    delete handle;
    return nullptr;
  }
  createLocalDirs(path, kLocalDirMode);
  handle->cursor = handle->entries->begin();
  return handle;
}

int readdir_r(VEL_DIR* dir, struct dirent* entry, struct dirent** result, const char* /*coding*/) {
  if (dir == nullptr) {
    return -1;
  }
  if (dir->entries != nullptr) {
    // The listing delivers the listed directory in full as its first
    // element; it is handed out by its base name.
    if (!dir->entries->empty()) {
      std::string& first = dir->entries->front();
      first = baseOf(first);
    }
    if (entry == nullptr) {
      getLogger()->log(kLogError, "[VEL] readdir_r(), NULL entry point.");
      if (result != nullptr) {
        *result = nullptr;
      }
      return -1;
    }
    if (dir->cursor == dir->entries->end()) {
      if (result != nullptr) {
        *result = nullptr;
      }
      return -1;
    }
    const std::string& name = *dir->cursor;
    if (memset_s(entry->d_name, kNameField, 0, kNameField) != 0 ||
        strncpy_s(entry->d_name, kNameField, name.c_str(), kNameField - 1) != 0) {
      if (result != nullptr) {
        *result = nullptr;
      }
      return -1;
    }
    entry->d_reclen = static_cast<unsigned short>(std::max<size_t>(kNameField, name.size()));
    ++dir->cursor;
    if (result != nullptr) {
      *result = entry;
    }
    return 0;
  }
  if (dir->dir != nullptr) {
    return handleReaddir_r(dir->dir, entry, result, kUtf8);
  }
  getLogger()->log(kLogError, "[VEL] readdir_r(), invalid VEL_DIR data.");
  if (result != nullptr) {
    *result = nullptr;
  }
  return -1;
}

void closedir(VEL_DIR* dir) {
  if (dir == nullptr) {
    getLogger()->log(kLogError, "[VEL] closedir(), NULL input.");
    return;
  }
  if (dir->dir != nullptr) {
    ::closedir(dir->dir);
    dir->dir = nullptr;
  } else if (dir->entries != nullptr) {
    delete dir->entries;
    dir->entries = nullptr;
  } else {
    getLogger()->log(kLogError, "[VEL] closedir(), dir already closed.");
  }
  delete dir;
}

int scandir(const char* path, struct dirent*** namelist, int (*selector)(const struct dirent*),
            int (*compar)(const struct dirent**, const struct dirent**), const char* coding) {
  if (path == nullptr || namelist == nullptr) {
    getLogger()->log(kLogError,
                     "[VEL] scandir(), bad parameter: NULL path(%d) or NULL namelist(%d).",
                     static_cast<int>(reinterpret_cast<intptr_t>(path)),
                     static_cast<int>(reinterpret_cast<intptr_t>(namelist)));
    return -1;
  }
  VELClient* client = backEnd("scandir");
  if (client == nullptr) {
    return -1;
  }
  if (client->isLocalOnly() != 0) {
    std::string mirror = getMirrorPath(path);
    int ret = handleScandir(mirror.c_str(), namelist, selector, compar, coding);
    if (ret < 0) {
      getLogger()->log(kLogDebug, "[VEL] scandir(), failed to scandir.%s, %d", mirror.c_str(), ret);
    }
    return ret;
  }

  std::list<std::string> names;
  int32_t code = client->listDir(path, 1, false, names);
  if (code != 0) {
    getLogger()->log(kLogError, "[VEL] scandir(), failed to list dir on VEL server. %s, errCode=%d",
                     path, code);
    return -1;
  }
  std::list<struct dirent*> kept;
  for (const std::string& name : names) {
    size_t size = name.size() + kDirentExtra;
    auto* record = static_cast<struct dirent*>(ACE_OS::malloc(size));
    if (record == nullptr) {
      getLogger()->log(kLogError,
                       "[VEL] scandir(), failed to malloc VEL_DIRENT on VEL server. dsize=%d",
                       static_cast<int>(size));
      return -1;
    }
    if (memset_s(record->d_name, kNameField, 0, kNameField) != 0 ||
        strncpy_s(record->d_name, kNameField, name.c_str(), kNameField - 1) != 0) {
      return -1;
    }
    if (selector != nullptr && selector(record) == 0) {
      ACE_OS::free(record);
      continue;
    }
    kept.push_back(record);
  }
  if (kept.empty()) {
    *namelist = nullptr;
    getLogger()->log(kLogError, "[VEL] scandir(), return null namelist for %s.", path);
    return 0;
  }
  auto** array = static_cast<struct dirent**>(ACE_OS::malloc(kept.size() * sizeof(struct dirent*)));
  if (array == nullptr) {
    getLogger()->log(kLogError, "[VEL] scandir(), can not malloc *namelist.");
    return -1;
  }
  size_t count = 0;
  for (struct dirent* record : kept) {
    array[count++] = record;
  }
  if (compar != nullptr) {
    t_compar = compar;
    std::qsort(array, count, sizeof(struct dirent*), compareEntries);
    t_compar = nullptr;
  }
  *namelist = array;
  return static_cast<int>(count);
}

int readDir(const std::string& path, std::list<std::string>& entries, bool fullPath, bool recursive,
            const char* coding) {
  VELClient* client = backEnd("readDir");
  if (client == nullptr) {
    return 0;
  }
  if (client->isLocalOnly() != 0) {
    return readLocalDir(getMirrorPath(path), entries, fullPath, recursive, coding);
  }
  std::list<std::string> listed;
  int32_t code = client->listDir(path, recursive ? -1 : 1, fullPath, listed);
  if (code != 0) {
    getLogger()->log(kLogError, "[VEL] readDir(), failed to list dir on VEL server. %s, errCode=%d",
                     path.c_str(), code);
    return 0;
  }
  std::string prefix = normalizePath(path, true, '/');
  if (!prefix.empty()) {
    prefix.push_back('/');
  }
  for (const std::string& item : listed) {
    std::string cleaned = normalizePath(item, true, '/');
    if (!prefix.empty() && cleaned.size() > prefix.size() &&
        cleaned.compare(0, prefix.size(), prefix) == 0) {
      cleaned.erase(0, prefix.size());
    }
    entries.push_back(cleaned);
  }
  return 1;
}

int readLocalDir(const std::string& mirrorPath, std::list<std::string>& entries, bool fullPath,
                 bool recursive, const char* coding) {
  DIR* dir = handleOpendir(mirrorPath.c_str(), coding);
  if (dir == nullptr) {
    return 0;
  }
  std::list<std::string> subDirs;
  struct dirent entry;
  std::memset(&entry, 0, sizeof(entry));
  struct dirent* result = nullptr;
  while (handleReaddir_r(dir, &entry, &result, kUtf8) == 0 && result != nullptr) {
    const char* name = result->d_name;
    if (name[0] == '\0' || std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) {
      continue;
    }
    if (!fullPath && !recursive) {
      entries.push_back(name);
      continue;
    }
    std::string child = mirrorPath + "/" + name;
    entries.push_back(child);
    if (!recursive) {
      continue;
    }
    // Anything without the regular-file bit counts as a directory; a
    // symbolic link is listed but not followed, so link loops end here.
    struct stat st;
    struct stat linkSt;
    if (handleStat(child.c_str(), &st, kUtf8) == 0 && (st.st_mode & 0x8000) == 0 &&
        ::lstat(child.c_str(), &linkSt) == 0 && !S_ISLNK(linkSt.st_mode)) {
      subDirs.push_back(child);
    }
  }
  handleClosedir(dir);
  for (const std::string& sub : subDirs) {
    readLocalDir(sub, entries, fullPath, recursive, coding);
  }
  return 1;
}

}  // namespace VEL
