#include "service.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <ctime>

namespace velagent {

namespace {

constexpr size_t kMaxHandles = 256;
constexpr long long kMaxReadLength = 64LL * 1024 * 1024;
const char* const kNotFound = "file not found";

std::string errnoText(const std::string& what, int err) {
  return "ERR " + what + ": " + std::strerror(err);
}

std::string join(const std::vector<std::string>& names, size_t count) {
  std::string out;
  for (size_t i = 0; i < count && i < names.size(); ++i) {
    if (i > 0) {
      out += '/';
    }
    out += names[i];
  }
  return out;
}

std::string under(const std::string& base, const std::string& relative) {
  return relative.empty() ? base : base + "/" + relative;
}

// Creates base/names[0..count) one level at a time.
int makeDirs(const std::string& base, const std::vector<std::string>& names, size_t count) {
  std::string path = base;
  for (size_t i = 0; i < count && i < names.size(); ++i) {
    path += "/" + names[i];
    if (::mkdir(path.c_str(), 0755) != 0) {
      int err = errno;
      struct stat st;
      if (err != EEXIST) {
        return err;
      }
      if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        return ENOTDIR;
      }
    }
  }
  return 0;
}

bool writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Copies the regular file `from` over `to` and gives it `mode`; 0 or errno.
int copyFile(const std::string& from, const std::string& to, mode_t mode) {
  int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) {
    return errno;
  }
  int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (out < 0) {
    int err = errno;
    ::close(in);
    return err;
  }
  int err = 0;
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(in, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      err = errno;
      break;
    }
    if (n == 0) {
      break;
    }
    if (!writeAll(out, buffer, static_cast<size_t>(n))) {
      err = errno;
      break;
    }
  }
  if (err == 0 && ::fchmod(out, mode) != 0) {
    err = errno;
  }
  ::close(in);
  if (::close(out) != 0 && err == 0) {
    err = errno;
  }
  return err;
}

// Removes `path` and everything below it without following links; 0 or errno.
int removeTree(const std::string& path) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) {
    return errno == ENOENT ? 0 : errno;
  }
  if (S_ISDIR(st.st_mode)) {
    DIR* dir = ::opendir(path.c_str());
    if (dir == nullptr) {
      return errno;
    }
    std::vector<std::string> children;
    while (struct dirent* entry = ::readdir(dir)) {
      std::string name = entry->d_name;
      if (name != "." && name != "..") {
        children.push_back(name);
      }
    }
    ::closedir(dir);
    for (const std::string& child : children) {
      int err = removeTree(path + "/" + child);
      if (err != 0) {
        return err;
      }
    }
    return ::rmdir(path.c_str()) == 0 ? 0 : errno;
  }
  return ::unlink(path.c_str()) == 0 ? 0 : errno;
}

// A non-negative decimal number without sign or spaces, at most `limit`.
bool parseDecimal(const std::string& text, long long limit, long long& out) {
  if (text.empty() || text.size() > 18) {
    return false;
  }
  long long value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') {
      return false;
    }
    value = value * 10 + (c - '0');
  }
  if (value > limit) {
    return false;
  }
  out = value;
  return true;
}

std::string localTime(time_t when) {
  struct tm parts;
  if (::localtime_r(&when, &parts) == nullptr) {
    return "";
  }
  char text[64];
  size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &parts);
  return std::string(text, n);
}

struct CommandShape {
  const char* name;
  size_t minArgs;
  size_t maxArgs;
  bool serviceLast;
};

const CommandShape kCommands[] = {
    {"tarn.metadata", 3, 3, false},      {"tarn.dir", 4, 4, false},
    {"tarn.downloadlocal", 3, 4, false}, {"tarn.uploadlocal", 3, 4, false},
    {"tarn.createinfo", 4, 4, false},    {"tarn.move", 4, 4, false},
    {"tarn.move_cache", 4, 4, false},    {"tarn.chmod", 4, 4, false},
    {"tarn.remove", 4, 4, false},        {"tarn.create", 4, 4, false},
    {"tarn.close", 3, 3, false},         {"tarn.read", 5, 5, true},
    {"tarn.write", 4, 4, true},
};

}  // namespace

bool splitPath(const std::string& path, std::vector<std::string>& names) {
  names.clear();
  if (!path.empty() && path[0] == '/') {
    return false;
  }
  if (path.find('\0') != std::string::npos) {
    return false;
  }
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) {
      end = path.size();
    }
    std::string name = path.substr(start, end - start);
    if (name == "..") {
      return false;
    }
    if (!name.empty() && name != ".") {
      names.push_back(name);
    }
    start = end + 1;
  }
  return true;
}

FileService::FileService(const std::string& store, const std::string& mirror)
    : store_(store), mirror_(mirror) {}

FileService::~FileService() {
  for (auto& entry : handles_) {
    ::close(entry.second);
  }
}

Reply FileService::execute(const std::vector<std::string>& args) {
  if (args.empty()) {
    return Reply::error("ERR empty request");
  }
  std::string word = args[0];
  std::transform(word.begin(), word.end(), word.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const CommandShape* shape = nullptr;
  for (const CommandShape& candidate : kCommands) {
    if (word == candidate.name) {
      shape = &candidate;
    }
  }
  if (shape == nullptr) {
    return Reply::error("ERR unknown command '" + args[0] + "'");
  }
  if (args.size() < shape->minArgs || args.size() > shape->maxArgs) {
    return Reply::error("ERR wrong number of arguments for '" + args[0] + "' command");
  }
  const std::string& service = shape->serviceLast ? args.back() : args[1];
  if (service != kServiceName) {
    return Reply::error("ERR unknown service '" + service + "'");
  }
  std::string extra = args.size() > 3 ? args[3] : "";
  std::lock_guard<std::mutex> lock(mutex_);
  if (word == "tarn.metadata") return metadata(args[2]);
  if (word == "tarn.dir") return dir(args[2]);
  if (word == "tarn.downloadlocal") return download(args[2]);
  if (word == "tarn.uploadlocal") return upload(args[2]);
  if (word == "tarn.createinfo") return createInfo(args[2], args[3]);
  if (word == "tarn.move" || word == "tarn.move_cache") return move(args[2], args[3]);
  if (word == "tarn.chmod") return chmod(args[2], args[3]);
  if (word == "tarn.remove") return remove(args[2], args[3]);
  if (word == "tarn.create") return createHandle(args[2], args[3]);
  if (word == "tarn.close") return closeHandle(args[2]);
  if (word == "tarn.read") return read(args[1], args[2], args[3]);
  return write(args[1], args[2]);
}

namespace {

// Splits `path` for a command; false when it is refused (absolute, climbing,
// or naming the store root where a node is required).
bool resolve(const std::string& path, bool allowRoot, std::vector<std::string>& names,
             std::string& clean) {
  if (!splitPath(path, names) || (!allowRoot && names.empty())) {
    return false;
  }
  clean = join(names, names.size());
  return true;
}

Reply refused(const std::string& path) { return Reply::error("ERR path refused: '" + path + "'"); }

}  // namespace

Reply FileService::metadata(const std::string& path) {
  std::vector<std::string> names;
  std::string clean;
  if (!resolve(path, true, names, clean)) {
    return refused(path);
  }
  struct stat st;
  if (::stat(under(store_, clean).c_str(), &st) != 0) {
    return Reply::bulk(kNotFound);
  }
  Json::Value meta(Json::objectValue);
  meta["Name"] = names.empty() ? "" : names.back();
  bool isDir = S_ISDIR(st.st_mode);
  meta["Kind"] = isDir ? "dir" : "file";
  if (!isDir) {
    meta["Size"] = static_cast<Json::Int64>(st.st_size);
  }
  meta["LastModifiedTime"] = localTime(st.st_mtime);
  meta["AccessAllowRoles"] = "all";
  meta["mode"] = static_cast<Json::Int>(st.st_mode & 07777);
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Reply::bulk(Json::writeString(builder, meta));
}

Reply FileService::dir(const std::string& path) {
  std::vector<std::string> names;
  std::string clean;
  if (!resolve(path, true, names, clean)) {
    return refused(path);
  }
  const std::string full = under(store_, clean);
  struct stat st;
  if (::stat(full.c_str(), &st) != 0) {
    return Reply::error("ERR file not found");
  }
  if (!S_ISDIR(st.st_mode)) {
    return Reply::error("ERR not a directory");
  }
  DIR* handle = ::opendir(full.c_str());
  if (handle == nullptr) {
    return Reply::error(errnoText("cannot list", errno));
  }
  std::vector<std::string> children;
  while (struct dirent* entry = ::readdir(handle)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") {
      children.push_back(name);
    }
  }
  ::closedir(handle);
  std::sort(children.begin(), children.end());
  std::vector<std::string> items;
  const std::string prefix = clean.empty() ? "" : clean + "/";
  for (const std::string& name : children) {
    struct stat child;
    bool isDir = ::stat((full + "/" + name).c_str(), &child) == 0 && S_ISDIR(child.st_mode);
    items.push_back(prefix + name + (isDir ? "/" : ""));
  }
  return Reply::array(std::move(items));
}

Reply FileService::download(const std::string& path) {
  std::vector<std::string> names;
  std::string clean;
  if (!resolve(path, false, names, clean)) {
    return refused(path);
  }
  struct stat st;
  if (::stat(under(store_, clean).c_str(), &st) != 0) {
    return Reply::bulk(kNotFound);
  }
  const std::string target = under(mirror_, clean);
  const std::string parent = under(mirror_, join(names, names.size() - 1));
  struct stat parentStat;
  if (::stat(parent.c_str(), &parentStat) != 0 || !S_ISDIR(parentStat.st_mode)) {
    return Reply::error("ERR mirror folder missing: '" + parent + "'");
  }
  mode_t mode = st.st_mode & 07777;
  if (S_ISDIR(st.st_mode)) {
    if (::mkdir(target.c_str(), mode) != 0 && errno != EEXIST) {
      return Reply::error(errnoText("cannot create folder", errno));
    }
    struct stat made;
    if (::stat(target.c_str(), &made) != 0 || !S_ISDIR(made.st_mode)) {
      return Reply::error("ERR not a directory: '" + target + "'");
    }
    ::chmod(target.c_str(), mode);
    return Reply::ok();
  }
  int err = copyFile(under(store_, clean), target, mode);
  return err == 0 ? Reply::ok() : Reply::error(errnoText("download failed", err));
}

Reply FileService::upload(const std::string& path) {
  std::vector<std::string> names;
  std::string clean;
  if (!resolve(path, false, names, clean)) {
    return refused(path);
  }
  const std::string source = under(mirror_, clean);
  struct stat st;
  if (::stat(source.c_str(), &st) != 0) {
    return Reply::bulk(kNotFound);
  }
  if (S_ISDIR(st.st_mode)) {
    int err = makeDirs(store_, names, names.size());
    return err == 0 ? Reply::ok() : Reply::error(errnoText("cannot create folder", err));
  }
  int err = makeDirs(store_, names, names.size() - 1);
  if (err != 0) {
    return Reply::error(errnoText("cannot create folder", err));
  }
  err = copyFile(source, under(store_, clean), st.st_mode & 07777);
  return err == 0 ? Reply::ok() : Reply::error(errnoText("upload failed", err));
}

Reply FileService::createInfo(const std::string& path, const std::string& kind) {
  std::vector<std::string> names;
  std::string clean;
  if (!resolve(path, true, names, clean)) {
    return refused(path);
  }
  if (kind == "dir") {
    int err = makeDirs(store_, names, names.size());
    return err == 0 ? Reply::ok() : Reply::error(errnoText("cannot create folder", err));
  }
  if (kind == "file" && !names.empty()) {
    int err = makeDirs(store_, names, names.size() - 1);
    if (err != 0) {
      return Reply::error(errnoText("cannot create folder", err));
    }
    int fd = ::open(under(store_, clean).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
      return Reply::error(errnoText("cannot create file", errno));
    }
    ::close(fd);
    return Reply::ok();
  }
  return Reply::error("ERR unknown kind '" + kind + "'");
}

Reply FileService::move(const std::string& from, const std::string& to) {
  std::vector<std::string> fromNames;
  std::string fromClean;
  if (!resolve(from, false, fromNames, fromClean)) {
    return refused(from);
  }
  std::vector<std::string> toNames;
  std::string toClean;
  if (!resolve(to, false, toNames, toClean)) {
    return refused(to);
  }
  struct stat st;
  if (::lstat(under(store_, fromClean).c_str(), &st) != 0) {
    return Reply::error("ERR file not found");
  }
  int err = makeDirs(store_, toNames, toNames.size() - 1);
  if (err != 0) {
    return Reply::error(errnoText("cannot create folder", err));
  }
  if (::rename(under(store_, fromClean).c_str(), under(store_, toClean).c_str()) != 0) {
    return Reply::error(errnoText("move failed", errno));
  }
  return Reply::ok();
}

Reply FileService::chmod(const std::string& mode, const std::string& path) {
  long long value = 0;
  if (!parseDecimal(mode, 07777, value)) {
    return Reply::error("ERR bad mode '" + mode + "'");
  }
  std::vector<std::string> names;
  std::string clean;
  if (!resolve(path, false, names, clean)) {
    return refused(path);
  }
  const std::string full = under(store_, clean);
  struct stat st;
  if (::stat(full.c_str(), &st) != 0) {
    return Reply::error("ERR file not found");
  }
  if (::chmod(full.c_str(), static_cast<mode_t>(value)) != 0) {
    return Reply::error(errnoText("chmod failed", errno));
  }
  return Reply::ok();
}

Reply FileService::remove(const std::string& path, const std::string& recursive) {
  if (recursive != "false" && recursive != "true") {
    return Reply::error("ERR bad recursion flag '" + recursive + "'");
  }
  std::vector<std::string> names;
  std::string clean;
  if (!resolve(path, false, names, clean)) {
    return refused(path);
  }
  const std::string full = under(store_, clean);
  struct stat st;
  if (::lstat(full.c_str(), &st) != 0) {
    return Reply::ok();
  }
  if (recursive == "true") {
    int err = removeTree(full);
    return err == 0 ? Reply::ok() : Reply::error(errnoText("remove failed", err));
  }
  if (S_ISDIR(st.st_mode)) {
    if (::rmdir(full.c_str()) != 0) {
      int err = errno;
      if (err == ENOTEMPTY || err == EEXIST) {
        return Reply::error("ERR directory not empty");
      }
      return Reply::error(errnoText("remove failed", err));
    }
    return Reply::ok();
  }
  if (::unlink(full.c_str()) != 0) {
    return Reply::error(errnoText("remove failed", errno));
  }
  return Reply::ok();
}

Reply FileService::createHandle(const std::string& name, const std::string& mode) {
  std::vector<std::string> names;
  std::string clean;
  if (!resolve(name, false, names, clean)) {
    return refused(name);
  }
  std::string plain;
  for (char c : mode) {
    if (c != 'b') {
      plain += c;
    }
  }
  int flags = 0;
  if (plain == "r") {
    flags = O_RDONLY;
  } else if (plain == "r+") {
    flags = O_RDWR;
  } else if (plain == "w") {
    flags = O_WRONLY | O_CREAT | O_TRUNC;
  } else if (plain == "w+") {
    flags = O_RDWR | O_CREAT | O_TRUNC;
  } else if (plain == "a") {
    flags = O_WRONLY | O_CREAT | O_APPEND;
  } else if (plain == "a+") {
    flags = O_RDWR | O_CREAT | O_APPEND;
  } else {
    return Reply::error("ERR bad open mode '" + mode + "'");
  }
  if (handles_.size() >= kMaxHandles) {
    return Reply::error("ERR too many open handles");
  }
  int fd = ::open(under(store_, clean).c_str(), flags | O_CLOEXEC, 0644);
  if (fd < 0) {
    return Reply::error(errnoText("open failed", errno));
  }
  std::string handle = "fh" + std::to_string(nextHandle_++);
  handles_[handle] = fd;
  return Reply::bulk(handle);
}

Reply FileService::closeHandle(const std::string& handle) {
  auto it = handles_.find(handle);
  if (it == handles_.end()) {
    return Reply::error("ERR unknown handle '" + handle + "'");
  }
  int rc = ::close(it->second);
  handles_.erase(it);
  return rc == 0 ? Reply::ok() : Reply::error(errnoText("close failed", errno));
}

Reply FileService::read(const std::string& handle, const std::string& offset,
                        const std::string& length) {
  auto it = handles_.find(handle);
  if (it == handles_.end()) {
    return Reply::error("ERR unknown handle '" + handle + "'");
  }
  long long from = 0;
  long long count = 0;
  if (!parseDecimal(offset, (1LL << 62), from) || !parseDecimal(length, kMaxReadLength, count)) {
    return Reply::error("ERR bad offset or length");
  }
  std::string data(static_cast<size_t>(count), '\0');
  size_t got = 0;
  while (got < data.size()) {
    ssize_t n = ::pread(it->second, &data[got], data.size() - got,
                        static_cast<off_t>(from) + static_cast<off_t>(got));
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      return Reply::error(errnoText("read failed", errno));
    }
    if (n == 0) {
      break;
    }
    got += static_cast<size_t>(n);
  }
  data.resize(got);
  return Reply::bulk(data);
}

Reply FileService::write(const std::string& handle, const std::string& data) {
  auto it = handles_.find(handle);
  if (it == handles_.end()) {
    return Reply::error("ERR unknown handle '" + handle + "'");
  }
  if (!writeAll(it->second, data.data(), data.size())) {
    return Reply::error(errnoText("write failed", errno));
  }
  return Reply::ok();
}

}  // namespace velagent
