// The behaviour every back-end inherits: configuration attachment, the
// mirror root and its module directories, the node-record factory, the
// open-file registry and the client role table.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "vel/client.h"
#include "vel/client_config.h"
#include "vel/log.h"

namespace VEL {

const char* const kModuleDirs[19] = {"ferry",  "sorrel", "wicket", "tamber",     "quoin",
                                     "pellam", "tesser", "quill",  "kelda",      "gantry",
                                     "apex",   "orbis",  "morrow", "vel_public", "vel_protect",
                                     "lumen",  "vireo",  "tavora", "corea"};

namespace {

struct RoleEntry {
  const char* name;
  int32_t number;
};

constexpr RoleEntry kClientRoles[] = {{"Client", 1},  {"Storage", 4},   {"ROClient", 2},
                                      {"Tracker", 3}, {"FileAgent", 5}, {"SyncAgent", 6}};

constexpr mode_t kModuleDirMode = 0750;

// Makes `root` and each missing parent with mode 0750, from the top down.
// 0 when it exists afterwards as a directory; else the failing mkdir's
// result, logged.
int32_t makeRootDirs(const std::string& root) {
  struct stat st;
  if (root.empty() || ::stat(root.c_str(), &st) == 0) {
    return 0;
  }
  size_t from = root.find_first_not_of('/');
  while (from != std::string::npos) {
    const size_t end = root.find('/', from);
    const std::string level = root.substr(0, end);
    if (::stat(level.c_str(), &st) != 0) {
      int ret = ::mkdir(level.c_str(), kModuleDirMode);
      if (ret == 0) {
        getLogger()->log(kLogDebug, "[VEL] %s is not exist, create it. ret:%d", level.c_str(), 0);
      } else if (errno != EEXIST) {  // another process may have made it meanwhile
        getLogger()->log(kLogError, "[VEL] %s is not exist, create it. ret:%d", level.c_str(), ret);
        return ret;
      }
    }
    from = end == std::string::npos ? end : root.find_first_not_of('/', end);
  }
  return 0;
}

}  // namespace

int32_t VELClient::attachConfig(VELClientConfig* config) {
  config_ = config;
  return 0;
}

int32_t VELClient::createRoot() {
  if (config_ == nullptr) {
    getLogger()->log(kLogError, "[VEL] createRoot(): no configuration attached");
    return -1;
  }
  // A root that does not exist yet is made first, with its missing
  // parents, so that the module directories (and the first file) can be.
  int32_t result = makeRootDirs(config_->velRoot);
  for (const char* name : kModuleDirs) {
    std::string path = config_->velRoot + "/" + name;
    if (::access(path.c_str(), F_OK) == 0) {
      continue;
    }
    int ret = ::mkdir(path.c_str(), kModuleDirMode);
    if (ret != 0) {
      getLogger()->log(kLogError, "[VEL] %s is not exist, create it. ret:%d", path.c_str(), ret);
      result = ret;
    } else {
      getLogger()->log(kLogDebug, "[VEL] %s is not exist, create it. ret:%d", path.c_str(), 0);
    }
  }
  return result;
}

int32_t VELClient::stat(const std::string& path, VELFileInfoWrap** out) {
  if (out == nullptr) {
    return -4;
  }
  VELFileInfo* info = new (std::nothrow) VELFileInfo();
  if (info == nullptr) {
    return -1;
  }
  info->velPath = path;
  if (*out == nullptr) {
    *out = new (std::nothrow) VELFileInfoWrap();
    if (*out == nullptr) {
      delete info;
      return -1;
    }
  }
  (*out)->reset(info);
  return 0;
}

int32_t VELClient::forgetNode(const std::string& /*path*/) { return 0; }

void VELClient::putFileOpenMode(FILE* handle, const std::string& path, const std::string& mode) {
  if (handle == nullptr) {
    return;
  }
  openModes_[handle] = std::make_pair(path, mode);
  getLogger()->log(kLogError, "[VEL] fopen(), putFileOpenMode: path: %s, mode: %s", path.c_str(),
                   mode.c_str());
}

bool VELClient::getFileOpenMode(FILE* handle, std::string& path, std::string& mode) {
  if (handle == nullptr || openModes_.empty()) {
    return false;
  }
  auto it = openModes_.find(handle);
  if (it == openModes_.end()) {
    return false;
  }
  getLogger()->log(kLogError, "[VEL] fclose(), getFileOpenMode: path: %s, mode: %s",
                   it->second.first.c_str(), it->second.second.c_str());
  path = it->second.first;
  mode = it->second.second;
  return true;
}

bool VELClient::takeFileOpenMode(FILE* handle, std::string& path, std::string& mode) {
  if (!getFileOpenMode(handle, path, mode)) {
    return false;
  }
  // The stream is being closed: its address may come back with another one.
  openModes_.erase(handle);
  return true;
}

int32_t VELClient::getClientRole(const std::string& name) {
  for (const RoleEntry& role : kClientRoles) {
    if (name == role.name) {
      return role.number;
    }
  }
  return 0;
}

}  // namespace VEL
