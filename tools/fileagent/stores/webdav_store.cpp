#include "stores/webdav_store.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <random>

#include "server/agent_log.h"

namespace velagent {

namespace {

const char kXmlType[] = "Content-Type: application/xml; charset=utf-8";
const char kNoCondition[] = "\"vel-probe-no-such-version\"";

std::string parentOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

std::string lastName(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string octal(unsigned mode) {
  char text[16];
  std::snprintf(text, sizeof text, "0%o", mode & 07777);
  return text;
}

// A name no client would pick, different on every call.
std::string probeName() {
  static const unsigned long long seed =
      (static_cast<unsigned long long>(std::random_device{}()) << 32) ^ std::random_device{}();
  static std::atomic<unsigned long long> counter{0};
  char text[40];
  std::snprintf(text, sizeof text, "%016llx%llx", seed, counter.fetch_add(1) + 1);
  return std::string(kProbePrefix) + text;
}

Status failureOf(const HttpResponse& r) {
  if (r.fileError != 0) {
    return Status::fromErrno(r.fileError);
  }
  if (r.failed) {
    return Status::error(Status::Code::kServiceError, "webdav: " + r.error);
  }
  return Status::error(Status::Code::kServiceError, "webdav: " + std::to_string(r.code) +
                                                        (r.reason.empty() ? "" : " ") + r.reason);
}

Status conflict() {
  return Status::error(Status::Code::kConflict,
                       "the server holds another version than the one expected");
}

bool isTag(const std::string& version) { return !version.empty() && version[0] == '"'; }

// The condition headers of a change that expects `expect` (a version that
// is no entity tag cannot be asked for).
void addConditions(const Expect& expect, HttpRequest& request) {
  if (expect.kind == Expect::Kind::kAbsent) {
    request.headers.push_back("If-None-Match: *");
  } else if (expect.kind == Expect::Kind::kVersion && isTag(expect.version)) {
    request.headers.push_back("If-Match: " + expect.version);
  }
  // The server may have acted before a lost answer: a second copy would
  // find its own work and fail the condition.
  request.replayable = expect.kind == Expect::Kind::kAnything;
}

// The node of `nodes` that stands for `expected` (a decoded path without
// trailing slash), or null.
const DavNode* nodeOf(const std::vector<DavNode>& nodes, const std::string& expected) {
  std::string wanted = trimSlashes(expected.empty() ? "/" : expected);
  for (const DavNode& node : nodes) {
    if (trimSlashes(node.path) == wanted) {
      return &node;
    }
  }
  return nullptr;
}

// How servers answer a PUT or MOVE into a folder that is not there: 409
// (Apache, lighttpd), 500 (nginx), 404 (rclone).
bool folderMissing(const HttpResponse& r) {
  return r.answered(409) || r.answered(500) || r.answered(404);
}

// Servers known to keep a file's dead properties when a PUT replaces it.
bool keepsPropertiesOnPut(DavServerKind kind) {
  return kind == DavServerKind::kApache || kind == DavServerKind::kLighttpd;
}

}  // namespace

bool WebDavStore::checkUrl(const std::string& url, std::string& error) {
  std::string lower = url;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  size_t start = lower.compare(0, 7, "http://") == 0    ? 7
                 : lower.compare(0, 8, "https://") == 0 ? 8
                                                        : 0;
  if (start == 0) {
    error = "the WebDAV URL must begin with http:// or https://";
    return false;
  }
  size_t slash = url.find('/', start);
  std::string authority = url.substr(start, slash == std::string::npos ? slash : slash - start);
  if (authority.empty()) {
    error = "the WebDAV URL names no server";
    return false;
  }
  if (authority.find('@') != std::string::npos) {
    // Credentials in the URL would end up wherever the URL is shown.
    error =
        "the WebDAV URL must not hold a user or password; give them with --webdav-user and "
        "--webdav-password-file";
    return false;
  }
  if (url.find_first_of("?#") != std::string::npos) {
    error = "the WebDAV URL must not have a query or fragment";
    return false;
  }
  std::string path = slash == std::string::npos ? "/" : url.substr(slash);
  std::string decoded;
  if (!decodePercent(path, decoded)) {
    error = "the path of the WebDAV URL has a broken percent sign";
    return false;
  }
  return true;
}

namespace {

HttpOptions httpOptionsOf(const WebDavOptions& options) {
  HttpOptions http;
  http.user = options.user;
  http.password = options.password;
  http.caFile = options.caFile;
  return http;
}

}  // namespace

WebDavStore::WebDavStore(const WebDavOptions& options)
    : options_(options), http_(httpOptionsOf(options)), cache_(options.cacheWindow) {
  size_t start = options_.url.find("://") + 3;
  size_t slash = options_.url.find('/', start);
  origin_ = options_.url.substr(0, slash);
  basePath_ = slash == std::string::npos ? "/" : options_.url.substr(slash);
  if (basePath_.back() != '/') {
    basePath_ += '/';
  }
  std::string decoded;
  decodePercent(basePath_, decoded);
  topDecoded_ = trimSlashes(decoded);
  if (topDecoded_ == "/") {
    topDecoded_.clear();
  }
}

WebDavStore::~WebDavStore() = default;

std::string WebDavStore::urlOf(const std::string& path, bool collection) const {
  return origin_ + basePath_ + encodePath(path) + (collection && !path.empty() ? "/" : "");
}

HttpResponse WebDavStore::send(const HttpRequest& request) {
  HttpResponse response = http_.perform(request);
  if (kind_.load() == static_cast<int>(DavServerKind::kUnknown)) {
    std::string server = response.header("server");
    if (!server.empty()) {
      kind_.store(static_cast<int>(serverKindOf(server)));
    }
  }
  return response;
}

Status WebDavStore::propfind(const std::string& path, const char* depth, std::vector<DavNode>& out,
                             time_t& date) {
  HttpRequest request;
  request.method = "PROPFIND";
  request.url = urlOf(path, false);
  request.headers = {std::string("Depth: ") + depth, kXmlType};
  request.hasBody = true;
  request.body = propfindBody();
  HttpResponse response = send(request);
  if (response.answered(404)) {
    return Status::error(Status::Code::kNotFound);
  }
  if ((response.answered(400) || response.answered(409)) && !path.empty()) {
    // Servers refuse a path through a file ("extraneous path components")
    // instead of saying it is not there.
    StoreStat parent;
    Status above = stat(parentOf(path), true, parent);
    if (above.code() == Status::Code::kNotFound || (above.isOk() && !parent.isDir)) {
      return Status::error(Status::Code::kNotFound);
    }
  }
  if (!response.answered(207)) {
    return failureOf(response);
  }
  std::string error;
  if (!parseMultistatus(response.body, out, error)) {
    return Status::error(Status::Code::kServiceError, "webdav: " + error);
  }
  date = response.date;
  return Status::ok();
}

StoreStat WebDavStore::describe(const DavNode& node, time_t date) {
  StoreStat out;
  out.isDir = node.isDir;
  out.size = node.isDir ? 0 : node.size;
  out.mtime = node.mtime;
  out.mode = node.mode;
  if (!node.isDir) {
    if (tags_.load() == kUnknown) {
      tags_.store(node.etag.empty() ? kNo : kYes);
    }
    DavVersion version = versionOf(node.etag, node.timed ? node.mtime : -1, out.size, date,
                                   static_cast<DavServerKind>(kind_.load()));
    out.version = version.text;
    out.settled = version.settled;
    out.identity = version.identity;
  }
  return out;
}

Status WebDavStore::probe() {
  StoreStat st;
  Status status = statFresh("", st);
  if (status.isOk() && !st.isDir) {
    return Status::error(Status::Code::kServiceError, "webdav: the URL names no collection");
  }
  if (status.code() == Status::Code::kNotFound) {
    return Status::error(Status::Code::kServiceError, "webdav: 404 Not Found");
  }
  return status;
}

Status WebDavStore::statFresh(const std::string& path, StoreStat& out) {
  StatCache::Ticket ticket = cache_.ticket();
  std::vector<DavNode> nodes;
  time_t date = -1;
  Status status = propfind(path, "0", nodes, date);
  if (!status.isOk()) {
    return status;
  }
  const DavNode* node = nodeOf(nodes, topDecoded_ + (path.empty() ? "" : "/" + path));
  if (node == nullptr && nodes.size() == 1) {
    node = &nodes[0];  // a server that names it differently; Depth 0 has one answer
  }
  if (node == nullptr) {
    return Status::error(Status::Code::kServiceError, "webdav: the answer names another path");
  }
  out = describe(*node, date);
  cache_.put(ticket, path, out);
  return Status::ok();
}

Status WebDavStore::stat(const std::string& path, bool /*followLast*/, StoreStat& out) {
  if (cache_.get(path, out)) {
    return Status::ok();
  }
  return statFresh(path, out);
}

Status WebDavStore::list(const std::string& path, std::vector<StoreEntry>& out) {
  StatCache::Ticket ticket = cache_.ticket();
  std::vector<DavNode> nodes;
  time_t date = -1;
  Status status = propfind(path, "1", nodes, date);
  if (!status.isOk()) {
    return status;
  }
  const std::string self = topDecoded_ + (path.empty() ? "" : "/" + path);
  const DavNode* node = nodeOf(nodes, self);
  if (node != nullptr && !node->isDir) {
    return Status::error(Status::Code::kNotDirectory);
  }
  const std::string prefix = trimSlashes(self.empty() ? "/" : self);
  std::vector<StoreEntry> entries;
  for (const DavNode& entry : nodes) {
    std::string entryPath = trimSlashes(entry.path);
    if (&entry == node || entryPath == prefix) {
      continue;
    }
    // Only names right below the listed collection; anything else in the
    // answer is not part of this listing.
    if (parentOf(entryPath) != (prefix == "/" ? "" : prefix)) {
      continue;
    }
    std::string name = lastName(entryPath);
    if (name.empty() || name == "." || name == ".." ||
        name.compare(0, std::char_traits<char>::length(kProbePrefix), kProbePrefix) == 0) {
      continue;
    }
    StoreEntry item;
    item.name = name;
    item.isDir = entry.isDir;
    item.described = true;
    item.stat = describe(entry, date);
    entries.push_back(std::move(item));
  }
  if (node != nullptr) {
    cache_.putListing(ticket, path, describe(*node, date), entries);
  }
  out.insert(out.end(), entries.begin(), entries.end());
  return Status::ok();
}

std::string WebDavStore::identity() const { return "webdav:" + options_.user + "@" + options_.url; }

Status WebDavStore::download(const std::string& path, ByteSink& target, StoreStat& copied,
                             const std::string& ifNoneMatch) {
  HttpRequest request;
  request.url = urlOf(path, false);
  request.target = &target;
  if (isTag(ifNoneMatch)) {
    request.headers.push_back("If-None-Match: " + ifNoneMatch);
  }
  HttpResponse response = send(request);
  // A listing's walk is done with the file: the next question about it
  // goes to the server.
  cache_.forgetNode(path);
  if (response.answered(404)) {
    return Status::error(Status::Code::kNotFound);
  }
  if (response.answered(304)) {
    return Status::error(Status::Code::kNotModified);
  }
  if (!response.answered(200) || response.fileError != 0) {
    return failureOf(response);
  }
  copied.isDir = false;
  copied.size = response.received;
  if (response.lastModified >= 0) {
    copied.mtime = response.lastModified;
  }
  // The version of these bytes, in the form a PROPFIND gives this server's
  // files; a server that answers a GET with less keeps what stat said.
  const std::string tag = response.header("etag");
  const int tags = tags_.load();
  DavVersion version;
  if (!tag.empty() && tags != kNo && (tags == kYes || copied.version.empty())) {
    version = versionOf(tag, response.lastModified, copied.size, response.date,
                        static_cast<DavServerKind>(kind_.load()));
  } else if (tags == kNo && response.lastModified >= 0) {
    version = versionOf("", response.lastModified, copied.size, response.date,
                        static_cast<DavServerKind>(kind_.load()));
  } else {
    return Status::ok();
  }
  copied.version = version.text;
  copied.settled = version.settled;
  copied.identity = version.identity;
  return Status::ok();
}

std::string WebDavStore::propertyLimit() {
  std::lock_guard<std::mutex> lock(probeMutex_);
  return propertyLimit_;
}

Status WebDavStore::propertiesKept(bool& kept) {
  int known = properties_.load();
  if (known == kUnknown) {
    std::lock_guard<std::mutex> lock(probeMutex_);
    known = properties_.load();
    if (known == kUnknown) {
      HttpRequest request;
      request.method = "PROPPATCH";
      request.url = urlOf("", true);
      request.headers = {kXmlType};
      request.hasBody = true;
      request.body = propertyProbeBody();
      HttpResponse response = send(request);
      // No answer, a refused login or a server that cannot answer now says
      // nothing of properties: asked again next time.
      if (response.failed || response.answered(401) || response.answered(407) ||
          response.answered(502) || response.answered(503) || response.answered(504)) {
        return failureOf(response);
      }
      std::string error;
      if (response.answered(207) ? proppatchSucceeded(response.body, error)
                                 : response.succeeded()) {
        known = kYes;
      } else {
        known = kNo;
        std::string answer = error.empty()
                                 ? std::to_string(response.code) +
                                       (response.reason.empty() ? "" : " ") + response.reason
                                 : error;
        propertyLimit_ = "the WebDAV server keeps no properties (PROPPATCH answered " + answer +
                         "), so it cannot store modes";
        logLine("webdav: " + propertyLimit_ +
                "; files and folders read the default modes and chmod is refused");
      }
      properties_.store(known);
    }
  }
  kept = known == kYes;
  return Status::ok();
}

bool WebDavStore::conditionsHonoured() {
  int known = conditions_.load();
  if (known != kUnknown) {
    return known == kYes;
  }
  std::lock_guard<std::mutex> lock(probeMutex_);
  known = conditions_.load();
  if (known != kUnknown) {
    return known == kYes;
  }
  const std::string name = probeName();
  HttpRequest request;
  request.method = "PUT";
  request.url = urlOf(name, false);
  request.headers = {"Content-Type: application/octet-stream",
                     std::string("If-Match: ") + kNoCondition};
  request.hasBody = true;
  request.replayable = false;
  HttpResponse response = send(request);
  if (response.answered(412)) {
    known = kYes;
  } else if (response.succeeded()) {
    known = kNo;
    HttpRequest cleanup;
    cleanup.method = "DELETE";
    cleanup.url = request.url;
    send(cleanup);
    logLine(
        "webdav: the server ignores If-Match and If-None-Match; each conditional change reads "
        "the version again just before it is made");
  }
  // Anything else (a refusal to write there, no answer) tells nothing: the
  // store asks again next time.
  conditions_.store(known);
  return known == kYes;
}

Status WebDavStore::recheck(const std::string& path, const Expect& expect, Prior& prior,
                            StoreStat& now) {
  Status status = statFresh(path, now);
  if (status.code() == Status::Code::kNotFound) {
    prior = Prior::kAbsent;
    return expect.kind == Expect::Kind::kVersion ? conflict() : Status::ok();
  }
  if (!status.isOk()) {
    return status;
  }
  prior = Prior::kPresent;
  if (expect.kind == Expect::Kind::kAbsent ||
      (expect.kind == Expect::Kind::kVersion && (now.isDir || now.version != expect.version))) {
    return conflict();
  }
  return Status::ok();
}

Status WebDavStore::setMode(const std::string& path, bool collection, mode_t mode) {
  HttpRequest request;
  request.method = "PROPPATCH";
  request.url = urlOf(path, collection);
  request.headers = {kXmlType};
  request.hasBody = true;
  request.body = modeUpdateBody(mode);
  HttpResponse response = send(request);
  std::string error;
  if (response.answered(200) || response.answered(204) ||
      (response.answered(207) && proppatchSucceeded(response.body, error))) {
    cache_.changeMode(path, mode & 07777);
    return Status::ok();
  }
  cache_.forgetNode(path);
  if (response.answered(404)) {
    return Status::error(Status::Code::kNotFound);
  }
  if (!response.answered(207)) {
    return failureOf(response);
  }
  return Status::error(Status::Code::kServiceError, "webdav: mode not set: " + error);
}

Status WebDavStore::storeMode(const std::string& path, bool collection, mode_t mode, Prior prior,
                              const StoreStat& before) {
  bool kept = false;
  Status status = propertiesKept(kept);
  if (!status.isOk()) {
    return status;
  }
  mode &= 07777;
  // A name without the property reads the default.
  const unsigned fresh = collection ? kDefaultFolderMode : kDefaultFileMode;
  if (!kept) {
    if (mode != fresh) {
      logLine("webdav: the mode " + octal(mode) + " of '" + path +
              "' is left out: the server keeps no properties");
    }
    return Status::ok();
  }
  // A file replaced on a server that keeps its properties keeps its mode.
  if ((prior == Prior::kAbsent && mode == fresh) ||
      (prior == Prior::kPresent && !before.isDir && before.mode == mode &&
       keepsPropertiesOnPut(static_cast<DavServerKind>(kind_.load())))) {
    return Status::ok();
  }
  return setMode(path, collection, mode);
}

Status WebDavStore::upload(int source, const std::string& path, mode_t mode, const Expect& expect,
                           StoreStat& written, ContentHash& sent) {
  struct stat st;
  if (::fstat(source, &st) != 0) {
    return Status::fromErrno(errno);
  }
  // What is known of the path before: whether its mode must be set again.
  StoreStat before;
  Prior prior = cache_.get(path, before) ? Prior::kPresent : Prior::kUnknown;
  if (expect.kind != Expect::Kind::kAnything && (!isTag(expect.version) || !conditionsHonoured())) {
    // The server will not check: the version is read just before the PUT.
    Status status = recheck(path, expect, prior, before);
    if (!status.isOk()) {
      return status;
    }
  }
  Hasher hasher;
  HttpRequest request;
  request.method = "PUT";
  request.url = urlOf(path, false);
  request.headers = {"Content-Type: application/octet-stream"};
  addConditions(expect, request);
  request.source = source;
  request.sourceSize = static_cast<long long>(st.st_size);
  request.sourceHash = &hasher;
  cache_.forget(path);
  HttpResponse response = send(request);
  if (folderMissing(response) && remade(path)) {
    response = send(request);
  }
  if (response.answered(412) && expect.kind == Expect::Kind::kVersion) {
    // Apache refuses a tag it holds, for a second after a write, as weak.
    Status status = recheck(path, expect, prior, before);
    if (!status.isOk()) {
      return status;
    }
    request.headers.resize(1);
    request.replayable = true;
    cache_.forget(path);
    response = send(request);
  }
  cache_.forget(path);
  if (response.answered(405)) {
    return Status::fromErrno(EISDIR);  // a collection stands there
  }
  if (response.answered(412)) {
    return conflict();
  }
  if (!response.succeeded()) {
    return failureOf(response);
  }
  sent = hasher.digest();
  written = StoreStat();
  written.size = request.sourceSize;
  const std::string tag = response.header("etag");
  if (!tag.empty() && tags_.load() == kYes) {
    // Read in the moment of the write: never settled.
    written.version = versionOf(tag, -1, written.size, response.date, DavServerKind::kUnknown).text;
  }
  return storeMode(path, false, mode, prior, before);
}

bool WebDavStore::remade(const std::string& path) {
  if (path.find('/') == std::string::npos) {
    return false;  // the top collection is not the store's to make
  }
  const std::string parent = parentOf(path);
  cache_.forget(parent);
  StoreStat st;
  if (statFresh(parent, st).code() != Status::Code::kNotFound) {
    return false;  // the folder is there: the failure was another
  }
  return makeDirs(parent).isOk();
}

Status WebDavStore::makeDirs(const std::string& path) {
  if (path.empty()) {
    return Status::ok();
  }
  StoreStat st;
  Status status = stat(path, true, st);
  if (status.isOk()) {
    return st.isDir ? Status::ok() : Status::fromErrno(ENOTDIR);
  }
  if (status.code() != Status::Code::kNotFound) {
    return status;
  }
  HttpRequest request;
  request.method = "MKCOL";
  request.url = urlOf(path, true);
  cache_.forget(path);
  HttpResponse response = send(request);
  if (response.answered(409) || response.answered(400)) {
    // A level above is missing (409), or a file (400 from some servers):
    // made first, then this one again. What the cache knew of it was out
    // of date.
    cache_.forget(parentOf(path));
    status = makeDirs(parentOf(path));
    if (!status.isOk()) {
      return status;
    }
    response = send(request);
  }
  cache_.forget(path);
  if (response.answered(201)) {
    // What it is now is known without asking: an empty folder.
    StoreStat made;
    made.isDir = true;
    made.mode = kDefaultFolderMode;
    made.mtime = response.date >= 0 ? response.date : ::time(nullptr);
    cache_.put(cache_.ticket(), path, made);
    return Status::ok();
  }
  if (response.answered(405)) {
    // Something came there meanwhile: fine if it is a collection.
    status = statFresh(path, st);
    if (status.isOk()) {
      return st.isDir ? Status::ok() : Status::fromErrno(ENOTDIR);
    }
    return status;
  }
  return failureOf(response);
}

Status WebDavStore::createFile(const std::string& path, mode_t mode) {
  StoreStat st;
  // A server that ignores If-None-Match is asked just before.
  Status status = conditionsHonoured() ? stat(path, true, st) : statFresh(path, st);
  if (status.isOk()) {
    return st.isDir ? Status::fromErrno(EISDIR) : Status::ok();
  }
  if (status.code() != Status::Code::kNotFound) {
    return status;
  }
  HttpRequest request;
  request.method = "PUT";
  request.url = urlOf(path, false);
  request.headers = {"Content-Type: application/octet-stream"};
  addConditions(Expect::absent(), request);
  request.hasBody = true;
  cache_.forget(path);
  HttpResponse response = send(request);
  if (folderMissing(response) && remade(path)) {
    response = send(request);
  }
  cache_.forget(path);
  if (response.answered(412)) {
    return Status::ok();  // made by someone else meanwhile
  }
  if (!response.succeeded()) {
    return failureOf(response);
  }
  return storeMode(path, false, mode, Prior::kAbsent, st);
}

Status WebDavStore::move(const std::string& from, const std::string& to) {
  StoreStat st;
  Status status = stat(from, false, st);
  if (!status.isOk()) {
    return status;
  }
  HttpRequest request;
  request.method = "MOVE";
  request.url = urlOf(from, st.isDir);
  request.headers = {"Destination: " + urlOf(to, st.isDir), "Overwrite: F"};
  cache_.forget(from);
  cache_.forget(to);
  HttpResponse response = send(request);
  if (folderMissing(response) && remade(to)) {
    response = send(request);
  }
  cache_.forget(from);
  cache_.forget(to);
  if (response.answered(412)) {
    return Status::fromErrno(EEXIST);  // never replaces what is there
  }
  if (response.answered(404)) {
    return Status::error(Status::Code::kNotFound);
  }
  return response.succeeded() && !response.answered(207) ? Status::ok() : failureOf(response);
}

Status WebDavStore::chmod(const std::string& path, mode_t mode) {
  StoreStat st;
  Status status = stat(path, true, st);
  if (!status.isOk()) {
    return status;
  }
  bool kept = false;
  status = propertiesKept(kept);
  if (!status.isOk()) {
    return status;
  }
  if (!kept) {
    return Status::error(Status::Code::kFailed, propertyLimit());
  }
  return setMode(path, st.isDir, mode & 07777);
}

Status WebDavStore::remove(const std::string& path, bool recursive, const Expect& expect) {
  std::vector<DavNode> nodes;
  time_t date = -1;
  Status status = propfind(path, recursive ? "0" : "1", nodes, date);
  if (status.code() == Status::Code::kNotFound) {
    return expect.kind == Expect::Kind::kVersion ? conflict() : Status::ok();
  }
  if (!status.isOk()) {
    return status;
  }
  const DavNode* node = nodeOf(nodes, topDecoded_ + "/" + path);
  if (node == nullptr && !nodes.empty()) {
    node = &nodes[0];
  }
  const bool isDir = node != nullptr && node->isDir;
  if (!recursive && isDir && nodes.size() > 1) {
    return Status::error(Status::Code::kNotEmpty);
  }
  HttpRequest request;
  request.method = "DELETE";
  request.url = urlOf(path, isDir);
  if (!isDir && node != nullptr && expect.kind != Expect::Kind::kAnything) {
    // The answer just read is the version the DELETE is checked against
    // where the server ignores the condition.
    StoreStat now = describe(*node, date);
    if (expect.kind == Expect::Kind::kAbsent || now.version != expect.version) {
      return conflict();
    }
    addConditions(expect, request);
  }
  cache_.forget(path);
  HttpResponse response = send(request);
  if (response.answered(412)) {
    // A tag the server still holds but calls weak: again without it.
    Prior prior;
    StoreStat now;
    status = recheck(path, expect, prior, now);
    if (!status.isOk()) {
      return status;
    }
    request.headers.clear();
    cache_.forget(path);
    response = send(request);
  }
  cache_.forget(path);
  if (response.answered(404)) {
    return Status::ok();
  }
  if (response.answered(412)) {
    return conflict();
  }
  // A 207 lists what could not be removed.
  return response.succeeded() && !response.answered(207) ? Status::ok() : failureOf(response);
}

Status WebDavStore::open(const std::string& /*path*/, const OpenMode& /*mode*/,
                         std::unique_ptr<StoreHandle>& /*out*/) {
  return Status::error(Status::Code::kFailed, "not supported by the WebDAV store");
}

}  // namespace velagent
