#include "commands.h"

#include <errno.h>
#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <ctime>

#include "command_replies.h"
#include "fs/atomic_file.h"

namespace velagent {

namespace {

constexpr long long kMaxReadLength = 64LL * 1024 * 1024;

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

// Streams a read from a handle; the handle stays open as long as the reply
// is being sent.
class HandleSource : public BulkSource {
 public:
  HandleSource(std::shared_ptr<StoreHandle> handle, long long offset)
      : handle_(std::move(handle)), offset_(offset) {}

  bool next(char* buffer, size_t n) override {
    size_t got = 0;
    if (!handle_->readAt(offset_, buffer, n, got).isOk() || got != n) {
      return false;  // the file shrank or failed under the reply
    }
    offset_ += static_cast<long long>(n);
    return true;
  }

 private:
  std::shared_ptr<StoreHandle> handle_;
  long long offset_;
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

Reply Commands::execute(Client& client, const std::vector<std::string>& args) {
  if (args.empty()) {
    return Reply::refusal("ERR empty request");
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
    return Reply::refusal("ERR unknown command '" + args[0] + "'");
  }
  if (args.size() < shape->minArgs || args.size() > shape->maxArgs) {
    return Reply::refusal("ERR wrong number of arguments for '" + args[0] + "' command");
  }
  const std::string& service = shape->serviceLast ? args.back() : args[1];
  if (service != kServiceName) {
    return Reply::refusal("ERR unknown service '" + service + "'");
  }
  if (word == "tarn.metadata") return metadata(args[2]);
  if (word == "tarn.dir") return dir(args[2]);
  if (word == "tarn.downloadlocal") return download(args[2]);
  if (word == "tarn.uploadlocal") return upload(args[2]);
  if (word == "tarn.createinfo") return createInfo(args[2], args[3]);
  if (word == "tarn.move" || word == "tarn.move_cache") return move(args[2], args[3]);
  if (word == "tarn.chmod") return chmod(args[2], args[3]);
  if (word == "tarn.remove") return remove(args[2], args[3]);
  if (word == "tarn.create") return createHandle(client, args[2], args[3]);
  if (word == "tarn.close") return closeHandle(client, args[2]);
  if (word == "tarn.read") return read(client, args[1], args[2], args[3]);
  return write(client, args[1], args[2]);
}

Reply Commands::metadata(const std::string& path) {
  std::vector<std::string> names;
  std::string clean;
  if (!resolve(path, true, names, clean)) {
    return refused(path);
  }
  // A link is described as the link itself: never a folder a client would
  // walk into.
  StoreStat st;
  Status status = store_.statBrief(clean, false, st);
  if (!status.isOk()) {
    return lookupFailure(status, path, Reply::bulk(kNotFoundText));
  }
  Json::Value meta(Json::objectValue);
  meta["Name"] = names.empty() ? "" : names.back();
  meta["Kind"] = st.isDir ? "dir" : "file";
  if (!st.isDir) {
    meta["Size"] = static_cast<Json::Int64>(st.size);
  }
  meta["LastModifiedTime"] = localTime(st.mtime);
  meta["AccessAllowRoles"] = "all";
  meta["mode"] = static_cast<Json::Int>(st.mode);
  if (st.isLink) {
    meta["Link"] = true;
  }
  // Made once: writers made from it share nothing.
  static const Json::StreamWriterBuilder builder = [] {
    Json::StreamWriterBuilder made;
    made["indentation"] = "";
    return made;
  }();
  return Reply::bulk(Json::writeString(builder, meta));
}

Reply Commands::dir(const std::string& path) {
  std::vector<std::string> names;
  std::string clean;
  if (!resolve(path, true, names, clean)) {
    return refused(path);
  }
  std::vector<StoreEntry> entries;
  Status status = store_.list(clean, entries);
  switch (status.code()) {
    case Status::Code::kOk:
      break;
    case Status::Code::kRefused:
      return refused(path);
    case Status::Code::kNotFound:
      return Reply::error("ERR file not found");
    case Status::Code::kNotDirectory:
      return Reply::error("ERR not a directory");
    default:
      return Reply::error(failureText("cannot list", status));
  }
  std::sort(entries.begin(), entries.end(),
            [](const StoreEntry& a, const StoreEntry& b) { return a.name < b.name; });
  std::vector<std::string> items;
  const std::string prefix = clean.empty() ? "" : clean + "/";
  for (const StoreEntry& entry : entries) {
    items.push_back(prefix + entry.name + (entry.isDir ? "/" : ""));
  }
  // What the listing says of recorded paths that went (removed or moved
  // elsewhere) reaches the mirror; the reply is the listing either way.
  reconcile(clean, entries);
  return Reply::array(std::move(items));
}

Reply Commands::createInfo(const std::string& path, const std::string& kind) {
  std::vector<std::string> names;
  std::string clean;
  if (!resolve(path, true, names, clean)) {
    return refused(path);
  }
  if (kind != "dir" && (kind != "file" || names.empty())) {
    return Reply::refusal("ERR unknown kind '" + kind + "'");
  }
  PathLocks::Guard guard = locks_.lock({clean});
  Status status = store_.makeDirs(kind == "dir" ? clean : parentOf(clean));
  if (!status.isOk() || kind == "dir") {
    return changeReply(status, path, "cannot create folder");
  }
  return changeReply(store_.createFile(clean, 0644), path, "cannot create file");
}

Reply Commands::move(const std::string& from, const std::string& to) {
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
  PathLocks::Guard guard = locks_.lock({fromClean, toClean});
  StoreStat st;
  Status status = store_.stat(fromClean, false, st);
  if (!status.isOk()) {
    return lookupFailure(status, from, Reply::error("ERR file not found"));
  }
  status = store_.makeDirs(parentOf(toClean));
  if (!status.isOk()) {
    return changeReply(status, to, "cannot create folder");
  }
  status = store_.move(fromClean, toClean);
  if (status.isOk()) {
    record_.move(fromClean, toClean);  // the records follow the files
  }
  return changeReply(status, to, "move failed");
}

Reply Commands::chmod(const std::string& mode, const std::string& path) {
  long long value = 0;
  if (!parseDecimal(mode, 07777, value)) {
    return Reply::refusal("ERR bad mode '" + mode + "'");
  }
  std::vector<std::string> names;
  std::string clean;
  if (!resolve(path, false, names, clean)) {
    return refused(path);
  }
  PathLocks::Guard guard = locks_.lock({clean});
  Status status = store_.chmod(clean, static_cast<mode_t>(value));
  switch (status.code()) {
    case Status::Code::kOk:
      return Reply::ok();
    case Status::Code::kRefused:
      return refused(path);
    case Status::Code::kNotFound:
      return Reply::error("ERR file not found");
    default:
      return Reply::error(failureText("chmod failed", status));
  }
}

Reply Commands::createHandle(Client& client, const std::string& name, const std::string& mode) {
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
  OpenMode how;
  if (plain == "r") {
    how.read = true;
  } else if (plain == "r+") {
    how.read = how.write = true;
  } else if (plain == "w") {
    how.write = how.create = how.truncate = true;
  } else if (plain == "w+") {
    how.read = how.write = how.create = how.truncate = true;
  } else if (plain == "a") {
    how.write = how.create = how.append = true;
  } else if (plain == "a+") {
    how.read = how.write = how.create = how.append = true;
  } else {
    return Reply::refusal("ERR bad open mode '" + mode + "'");
  }
  if (client.handles.size() >= kMaxHandlesPerClient) {
    return Reply::refusal("ERR too many open handles");
  }
  std::unique_ptr<StoreHandle> handle;
  Status status = Status::ok();
  {
    PathLocks::Guard guard = locks_.lock({clean});
    status = store_.open(clean, how, handle);
  }
  if (!status.isOk()) {
    return changeReply(status, name, "open failed");
  }
  std::string id = "fh" + std::to_string(nextHandle_++);
  client.handles[id] = std::move(handle);
  return Reply::bulk(id);
}

Reply Commands::closeHandle(Client& client, const std::string& handle) {
  auto it = client.handles.find(handle);
  if (it == client.handles.end()) {
    return Reply::error("ERR unknown handle '" + handle + "'");
  }
  Status status = it->second->close();
  client.handles.erase(it);
  return status.isOk() ? Reply::ok() : Reply::error(failureText("close failed", status));
}

Reply Commands::read(Client& client, const std::string& handle, const std::string& offset,
                     const std::string& length) {
  auto it = client.handles.find(handle);
  if (it == client.handles.end()) {
    return Reply::error("ERR unknown handle '" + handle + "'");
  }
  long long from = 0;
  long long count = 0;
  if (!parseDecimal(offset, (1LL << 62), from) || !parseDecimal(length, kMaxReadLength, count)) {
    return Reply::refusal("ERR bad offset or length");
  }
  if (count <= static_cast<long long>(inlineRead_)) {
    std::string data(static_cast<size_t>(count), '\0');
    size_t got = 0;
    Status status = it->second->readAt(from, &data[0], data.size(), got);
    if (!status.isOk()) {
      return Reply::error(failureText("read failed", status));
    }
    data.resize(got);
    return Reply::bulk(data);
  }
  long long size = 0;
  Status status = it->second->size(size);
  if (!status.isOk()) {
    return Reply::error(failureText("read failed", status));
  }
  long long available = std::max(0LL, std::min(count, size - from));
  return Reply::stream(available, std::make_shared<HandleSource>(it->second, from));
}

Reply Commands::write(Client& client, const std::string& handle, const std::string& data) {
  auto it = client.handles.find(handle);
  if (it == client.handles.end()) {
    return Reply::error("ERR unknown handle '" + handle + "'");
  }
  Status status = it->second->write(data.data(), data.size());
  return status.isOk() ? Reply::ok() : Reply::error(failureText("write failed", status));
}

}  // namespace velagent
