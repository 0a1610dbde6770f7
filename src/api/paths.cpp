// Mapping between application paths, mirror paths and placeholder paths.
// Nothing here touches the file system.
#include "vel/paths.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "api/clean_path.h"
#include "vel/client.h"
#include "vel/client_config.h"
#include "vel/instance.h"

namespace VEL {

const std::string kVelRootPlaceholder = "${VEL_ROOT}";

// The configuration lives as long as the process (retired back-ends and
// their configurations are never freed), so a reference to it stays valid.
const std::string& rootPathRef() {
  VELClient* client = getInstance();
  if (client != nullptr && client->config() != nullptr) {
    return client->config()->velRoot;
  }
  // Without a back-end there is no configured root; the default keeps
  // mapped paths inside the mirror area rather than at "/".
  return kDefaultVelRoot;
}

std::string getRootPath() { return rootPathRef(); }

std::string getMirrorPath(const std::string& path) {
  const std::string& root = rootPathRef();
  size_t length = 0;
  const char* clean = cleanPathAsIs(path.c_str(), true, length);
  std::string cleaned;
  if (clean == nullptr) {
    cleaned = normalizePath(path);
    clean = cleaned.c_str();
    length = cleaned.size();
  }
  if (length == 0) {
    return root;
  }
  std::string mirror;
  mirror.reserve(root.size() + 1 + length);
  mirror.append(root).append(1, '/').append(clean, length);
  return mirror;
}

MirrorPath::MirrorPath(const char* path) : text_(buffer_) {
  const std::string& root = rootPathRef();
  size_t length = 0;
  const char* clean = cleanPathAsIs(path != nullptr ? path : "", true, length);
  if (clean != nullptr && root.size() + 1 + length < sizeof(buffer_)) {
    std::memcpy(buffer_, root.data(), root.size());
    buffer_[root.size()] = '/';
    std::memcpy(buffer_ + root.size() + 1, clean, length);
    buffer_[root.size() + 1 + length] = '\0';
    return;
  }
  built_ = getMirrorPath(path != nullptr ? path : "");
  text_ = built_.c_str();
}

std::string getMirrorParentPath(const std::string& path) {
  std::string cleaned = normalizePath(path);
  std::string root = getRootPath();
  size_t slash = cleaned.rfind('/');
  if (slash == std::string::npos) {
    return root;
  }
  return root + "/" + cleaned.substr(0, slash);
}

std::string getPlaceholderPath(const std::string& path) {
  std::string cleaned = normalizePath(path);
  if (cleaned.empty()) {
    return kVelRootPlaceholder;
  }
  return kVelRootPlaceholder + "/" + cleaned;
}

std::string joinPath(const char* p1, const char* p2, const char* p3, const char* p4,
                     const char* p5) {
  std::string joined;
  bool first = true;
  for (const char* part : {p1, p2, p3, p4, p5}) {
    if (part == nullptr) {
      continue;
    }
    if (!first) {
      joined.push_back('/');
    }
    joined += part;
    first = false;
  }
  return normalizePath(joined);
}

std::string getParentPath(const std::string& path) {
  std::string cleaned = normalizePath(path);
  size_t slash = cleaned.rfind('/');
  if (slash == std::string::npos) {
    return std::string();
  }
  return cleaned.substr(0, slash);
}

std::string getBaseName(const std::string& path) {
  std::string cleaned = normalizePath(path);
  size_t slash = cleaned.rfind('/');
  if (slash == std::string::npos) {
    return cleaned;
  }
  return cleaned.substr(slash + 1);
}

std::string getFileName(std::string& path) {
  std::replace(path.begin(), path.end(), '\\', '/');
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return path;
  }
  return path.substr(slash + 1);
}

bool isAbsolutePath(const std::string& path) {
  std::string cleaned = normalizePath(path, false, '/');
  return !cleaned.empty() && cleaned[0] == '/';
}

const char* toRelativePath(const std::string& path, std::string& out) {
  std::string cleaned = normalizePath(path, false, '/');
  std::string root = getRootPath();
  if (root.size() <= cleaned.size() && cleaned.compare(0, root.size(), root) == 0) {
    if (root.size() == cleaned.size()) {
      out.clear();
      return out.c_str();
    }
    if (cleaned[root.size()] == '/') {
      out = cleaned.substr(root.size() + 1);
      return out.c_str();
    }
  }
  out.clear();
  return nullptr;
}

bool isInRoot(const std::string& path) {
  std::string relative;
  return toRelativePath(path, relative) != nullptr;
}

}  // namespace VEL
