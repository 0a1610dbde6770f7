#include "stores/webdav_store.h"

#include <curl/curl.h>
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <ctime>

namespace velagent {

namespace {

constexpr long kConnectSeconds = 15;
// A transfer that moves less than a byte a second for this long is given
// up: a server that stalls must not hold an agent thread for ever.
constexpr long kStallSeconds = 60;
// Most bytes of an answer read into memory (a listing's multistatus).
constexpr size_t kMaxAnswerBytes = 256u << 20;
const char kXmlType[] = "Content-Type: application/xml; charset=utf-8";

std::string parentOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

std::string lastName(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

struct WebDavStore::Request {
  const char* method = "GET";
  std::string url;
  std::vector<std::string> headers;
  bool hasBody = false;  // `body` is sent, even when empty
  std::string body;
  int source = -1;               // a PUT streamed from this descriptor ...
  long long sourceSize = 0;      // ... of this many bytes
  Hasher* sourceHash = nullptr;  // ... hashing what is sent
  ByteSink* target = nullptr;    // a GET's body when the status is 200
};

struct WebDavStore::Response {
  bool failed = false;  // the exchange itself failed: `error` says why
  std::string error;
  long code = 0;
  std::string reason;
  std::string body;
  time_t modified = -1;
  std::string etag;        // the ETag header, as given
  long long received = 0;  // bytes written to the target
  int fileError = 0;       // errno of the mirror file, read or written
};

// Borrows a handle from the pool and gives it back: its connection to the
// server stays open for the next request of any thread.
class WebDavStore::Lease {
 public:
  explicit Lease(WebDavStore& store) : store_(store) {
    {
      std::lock_guard<std::mutex> lock(store_.poolMutex_);
      if (!store_.idle_.empty()) {
        curl_ = store_.idle_.back();
        store_.idle_.pop_back();
      }
    }
    if (curl_ == nullptr) {
      curl_ = curl_easy_init();
    }
  }
  ~Lease() {
    if (curl_ != nullptr) {
      std::lock_guard<std::mutex> lock(store_.poolMutex_);
      store_.idle_.push_back(curl_);
    }
  }
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  CURL* get() const { return static_cast<CURL*>(curl_); }

 private:
  WebDavStore& store_;
  void* curl_ = nullptr;
};

namespace {

// What the callbacks of one transfer share.
struct Transfer {
  long code = 0;
  std::string reason;
  std::string etag;
  std::string* body;
  ByteSink* target;
  long long* received;
  int* fileError;
  int source;
  long long sourceSize;
  Hasher* sourceHash;
  long long sent = 0;
};

size_t onHeader(char* data, size_t size, size_t count, void* user) {
  Transfer& t = *static_cast<Transfer*>(user);
  std::string line(data, size * count);
  if (line.compare(0, 5, "HTTP/") == 0) {
    // Every answer starts again (a "100 Continue" comes before the real one).
    size_t space = line.find(' ');
    t.code = space == std::string::npos ? 0 : std::atol(line.c_str() + space + 1);
    size_t reason = space == std::string::npos ? space : line.find(' ', space + 1);
    t.reason = reason == std::string::npos ? "" : line.substr(reason + 1);
    while (!t.reason.empty() && std::isspace(static_cast<unsigned char>(t.reason.back()))) {
      t.reason.pop_back();
    }
    t.etag.clear();
  } else if (line.size() > 5 && strncasecmp(line.c_str(), "etag:", 5) == 0) {
    size_t from = line.find_first_not_of(" \t", 5);
    size_t to = line.find_last_not_of(" \t\r\n");
    t.etag = from == std::string::npos || to < from ? "" : line.substr(from, to - from + 1);
  }
  return size * count;
}

size_t onBody(char* data, size_t size, size_t count, void* user) {
  Transfer& t = *static_cast<Transfer*>(user);
  size_t n = size * count;
  if (t.target != nullptr && t.code == 200) {
    int err = t.target->write(data, n);
    if (err != 0) {
      *t.fileError = err;
      return 0;  // stops the transfer
    }
    *t.received += static_cast<long long>(n);
    return n;
  }
  if (t.body->size() + n > kMaxAnswerBytes) {
    return 0;
  }
  t.body->append(data, n);
  return n;
}

size_t onRead(char* buffer, size_t size, size_t count, void* user) {
  Transfer& t = *static_cast<Transfer*>(user);
  size_t want = static_cast<size_t>(
      std::min<long long>(static_cast<long long>(size * count), t.sourceSize - t.sent));
  if (want == 0) {
    return 0;
  }
  for (;;) {
    ssize_t n = ::pread(t.source, buffer, want, static_cast<off_t>(t.sent));
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      // A file that shrank under the copy is no whole copy either.
      *t.fileError = n < 0 ? errno : EIO;
      return CURL_READFUNC_ABORT;
    }
    t.sent += n;
    if (t.sourceHash != nullptr) {
      t.sourceHash->update(buffer, static_cast<size_t>(n));
    }
    return static_cast<size_t>(n);
  }
}

Status failureOf(const WebDavStore::Response& r);

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

WebDavStore::WebDavStore(const WebDavOptions& options) : options_(options) {
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

WebDavStore::~WebDavStore() {
  for (void* curl : idle_) {
    curl_easy_cleanup(static_cast<CURL*>(curl));
  }
}

std::string WebDavStore::urlOf(const std::string& path, bool collection) const {
  return origin_ + basePath_ + encodePath(path) + (collection && !path.empty() ? "/" : "");
}

WebDavStore::Response WebDavStore::perform(const Request& request) {
  Response response;
  Lease lease(*this);
  CURL* curl = lease.get();
  if (curl == nullptr) {
    response.failed = true;
    response.error = "cannot start a transfer";
    return response;
  }
  curl_easy_reset(curl);
  Transfer transfer{0,
                    "",
                    "",
                    &response.body,
                    request.target,
                    &response.received,
                    &response.fileError,
                    request.source,
                    request.sourceSize,
                    request.sourceHash};
  char errorText[CURL_ERROR_SIZE] = "";
  struct curl_slist* headers = nullptr;
  for (const std::string& header : request.headers) {
    headers = curl_slist_append(headers, header.c_str());
  }
  // No "Expect: 100-continue" round trip before a body.
  headers = curl_slist_append(headers, "Expect:");
  std::unique_ptr<struct curl_slist, void (*)(struct curl_slist*)> headerGuard(headers,
                                                                               curl_slist_free_all);

  curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, kStallSeconds);
  curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
  if (!options_.user.empty()) {
    curl_easy_setopt(curl, CURLOPT_HTTPAUTH, CURLAUTH_BASIC);
    curl_easy_setopt(curl, CURLOPT_USERNAME, options_.user.c_str());
    curl_easy_setopt(curl, CURLOPT_PASSWORD, options_.password.c_str());
  }
  if (!options_.caFile.empty()) {
    curl_easy_setopt(curl, CURLOPT_CAINFO, options_.caFile.c_str());
  }
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &transfer);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, onBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);
  if (request.source >= 0) {
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, onRead);
    curl_easy_setopt(curl, CURLOPT_READDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(request.sourceSize));
  } else if (request.hasBody) {
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request.body.size()));
  }
  if (std::strcmp(request.method, "GET") != 0) {
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method);
  } else {
    curl_easy_setopt(curl, CURLOPT_FILETIME, 1L);
  }

  CURLcode result = curl_easy_perform(curl);
  response.code = transfer.code;
  response.reason = transfer.reason;
  response.etag = transfer.etag;
  if (result != CURLE_OK) {
    response.failed = true;
    response.error = errorText[0] != '\0' ? errorText : curl_easy_strerror(result);
  }
  curl_off_t modified = -1;
  if (request.target != nullptr &&
      curl_easy_getinfo(curl, CURLINFO_FILETIME_T, &modified) == CURLE_OK && modified >= 0) {
    response.modified = static_cast<time_t>(modified);
  }
  // Nothing of this request may stay in the pooled handle.
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, nullptr);
  return response;
}

namespace {

Status failureOf(const WebDavStore::Response& r) {
  if (r.fileError != 0) {
    return Status::fromErrno(r.fileError);
  }
  if (r.failed) {
    return Status::error(Status::Code::kServiceError, "webdav: " + r.error);
  }
  return Status::error(Status::Code::kServiceError, "webdav: " + std::to_string(r.code) +
                                                        (r.reason.empty() ? "" : " ") + r.reason);
}

bool answered(const WebDavStore::Response& r, long code) { return !r.failed && r.code == code; }

bool weakTag(const std::string& etag) { return etag.compare(0, 2, "W/") == 0; }

// A file's version from what the server says of it: its entity tag, else
// its last-modified time and size. A tag is strong unless marked weak; a
// time read within the second it names may not show a change made in the
// same second.
// A weak tag is the same version as the strong tag of the same value
// (Apache marks a tag weak for the first second after a change, then
// strong): the version is the tag without "W/", and a weak one is not
// settled.
void describeVersion(const std::string& etag, time_t mtime, long long size, StoreStat& out) {
  out.version = !etag.empty() ? (weakTag(etag) ? etag.substr(2) : etag)
                              : "lm:" + std::to_string(mtime) + "-" + std::to_string(size);
  out.settled = !etag.empty() && !weakTag(etag) && ::time(nullptr) - mtime >= 1;
  // A strong tag made of the size and the time in microseconds (Apache's)
  // moves with the file and hardly repeats.
  out.identity = !etag.empty() && !weakTag(etag);
}

std::string versionOfNode(const DavNode& node) {
  StoreStat st;
  describeVersion(node.etag, node.mtime, node.size, st);
  return st.version;
}

void describeNode(const DavNode& node, StoreStat& out) {
  out = StoreStat();
  out.isDir = node.isDir;
  out.size = node.isDir ? 0 : node.size;
  out.mtime = node.mtime;
  out.mode = node.mode;
  if (!node.isDir) {
    describeVersion(node.etag, node.mtime, node.size, out);
  }
}

bool succeeded(const WebDavStore::Response& r) {
  return !r.failed && r.fileError == 0 && r.code >= 200 && r.code <= 299;
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

}  // namespace

Status WebDavStore::propfind(const std::string& path, const char* depth,
                             std::vector<DavNode>& out) {
  Request request;
  request.method = "PROPFIND";
  request.url = urlOf(path, false);
  request.headers = {std::string("Depth: ") + depth, kXmlType};
  request.hasBody = true;
  request.body = propfindBody();
  Response response = perform(request);
  if (answered(response, 404)) {
    return Status::error(Status::Code::kNotFound);
  }
  if ((answered(response, 400) || answered(response, 409)) && !path.empty()) {
    // Servers refuse a path through a file ("extraneous path components")
    // instead of saying it is not there.
    StoreStat parent;
    Status above = stat(parentOf(path), true, parent);
    if (above.code() == Status::Code::kNotFound || (above.isOk() && !parent.isDir)) {
      return Status::error(Status::Code::kNotFound);
    }
  }
  if (!answered(response, 207)) {
    return failureOf(response);
  }
  std::string error;
  if (!parseMultistatus(response.body, out, error)) {
    return Status::error(Status::Code::kServiceError, "webdav: " + error);
  }
  return Status::ok();
}

Status WebDavStore::probe() {
  StoreStat st;
  Status status = stat("", true, st);
  if (status.isOk() && !st.isDir) {
    return Status::error(Status::Code::kServiceError, "webdav: the URL names no collection");
  }
  if (status.code() == Status::Code::kNotFound) {
    return Status::error(Status::Code::kServiceError, "webdav: 404 Not Found");
  }
  return status;
}

Status WebDavStore::stat(const std::string& path, bool /*followLast*/, StoreStat& out) {
  std::vector<DavNode> nodes;
  Status status = propfind(path, "0", nodes);
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
  describeNode(*node, out);
  return Status::ok();
}

Status WebDavStore::list(const std::string& path, std::vector<StoreEntry>& out) {
  std::vector<DavNode> nodes;
  Status status = propfind(path, "1", nodes);
  if (!status.isOk()) {
    return status;
  }
  const std::string self = topDecoded_ + (path.empty() ? "" : "/" + path);
  const DavNode* node = nodeOf(nodes, self);
  if (node != nullptr && !node->isDir) {
    return Status::error(Status::Code::kNotDirectory);
  }
  const std::string prefix = trimSlashes(self.empty() ? "/" : self);
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
    if (name.empty() || name == "." || name == "..") {
      continue;
    }
    StoreEntry item;
    item.name = name;
    item.isDir = entry.isDir;
    item.described = true;
    describeNode(entry, item.stat);
    out.push_back(std::move(item));
  }
  return Status::ok();
}

std::string WebDavStore::identity() const { return "webdav:" + options_.user + "@" + options_.url; }

Status WebDavStore::download(const std::string& path, ByteSink& target, StoreStat& copied,
                             const std::string& ifNoneMatch) {
  Request request;
  request.url = urlOf(path, false);
  request.target = &target;
  if (!ifNoneMatch.empty() && ifNoneMatch.compare(0, 3, "lm:") != 0) {
    request.headers.push_back("If-None-Match: " + ifNoneMatch);
  }
  Response response = perform(request);
  if (answered(response, 404)) {
    return Status::error(Status::Code::kNotFound);
  }
  if (answered(response, 304)) {
    return Status::error(Status::Code::kNotModified);
  }
  if (!answered(response, 200) || response.fileError != 0) {
    return failureOf(response);
  }
  copied.isDir = false;
  copied.size = response.received;
  if (response.modified >= 0) {
    copied.mtime = response.modified;
  }
  if (!response.etag.empty() || response.modified >= 0) {
    describeVersion(response.etag, copied.mtime, copied.size, copied);
  }
  return Status::ok();
}

Status WebDavStore::setMode(const std::string& path, bool collection, mode_t mode) {
  Request request;
  request.method = "PROPPATCH";
  request.url = urlOf(path, collection);
  request.headers = {kXmlType};
  request.hasBody = true;
  request.body = modeUpdateBody(mode);
  Response response = perform(request);
  if (answered(response, 404)) {
    return Status::error(Status::Code::kNotFound);
  }
  if (answered(response, 200) || answered(response, 204)) {
    return Status::ok();
  }
  if (!answered(response, 207)) {
    return failureOf(response);
  }
  std::string error;
  if (!proppatchSucceeded(response.body, error)) {
    return Status::error(Status::Code::kServiceError, "webdav: mode not set: " + error);
  }
  return Status::ok();
}

namespace {

// True when the server can check `expect` itself: an entity tag, sent in
// its strong form (a server whose tag is still weak refuses it: the store
// then checks and tries again without), or "nothing there".
bool serverChecks(const Expect& expect) {
  return expect.kind == Expect::Kind::kAbsent ||
         (expect.kind == Expect::Kind::kVersion && expect.version.compare(0, 3, "lm:") != 0);
}

// The condition headers of a change that expects `expect`.
void addConditions(const Expect& expect, std::vector<std::string>& headers) {
  if (expect.kind == Expect::Kind::kAbsent) {
    headers.push_back("If-None-Match: *");
  } else if (serverChecks(expect)) {
    headers.push_back("If-Match: " + expect.version);
  }
}

}  // namespace

Status WebDavStore::upload(int source, const std::string& path, mode_t mode, const Expect& expect,
                           StoreStat& written, ContentHash& sent) {
  struct stat st;
  if (::fstat(source, &st) != 0) {
    return Status::fromErrno(errno);
  }
  // Checked here, just before the PUT, where the server cannot (no tag),
  // and after a refusal of a tag that may only be weak still.
  auto stillExpected = [&]() -> Status {
    StoreStat now;
    Status status = stat(path, true, now);
    if (status.code() == Status::Code::kNotFound ||
        (status.isOk() && now.version != expect.version)) {
      return Status::error(Status::Code::kConflict, "the file changed");
    }
    return status;
  };
  bool conditional = serverChecks(expect);
  if (expect.kind == Expect::Kind::kVersion && !conditional) {
    Status status = stillExpected();
    if (!status.isOk()) {
      return status;
    }
  }
  Hasher hasher;
  Request request;
  request.method = "PUT";
  request.url = urlOf(path, false);
  request.headers = {"Content-Type: application/octet-stream"};
  addConditions(expect, request.headers);
  request.source = source;
  request.sourceSize = static_cast<long long>(st.st_size);
  request.sourceHash = &hasher;
  Response response = perform(request);
  if (answered(response, 412) && expect.kind == Expect::Kind::kVersion) {
    Status status = stillExpected();
    if (!status.isOk()) {
      return status;
    }
    // The version is the expected one, its tag only weak yet: sent again
    // without the condition.
    hasher.reset();
    request.headers = {"Content-Type: application/octet-stream"};
    response = perform(request);
  }
  if (answered(response, 405)) {
    return Status::fromErrno(EISDIR);  // a collection stands there
  }
  if (answered(response, 412)) {
    return Status::error(Status::Code::kConflict, "the server refused the condition");
  }
  if (!succeeded(response)) {
    return failureOf(response);
  }
  sent = hasher.digest();
  written = StoreStat();  // the version is asked for again
  return setMode(path, false, mode);
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
  Request request;
  request.method = "MKCOL";
  request.url = urlOf(path, true);
  Response response = perform(request);
  if (answered(response, 409) || answered(response, 400)) {
    // A level above is missing (409), or a file (400 from some servers):
    // made first, then this one again.
    status = makeDirs(parentOf(path));
    if (!status.isOk()) {
      return status;
    }
    response = perform(request);
  }
  if (answered(response, 201)) {
    return Status::ok();
  }
  if (answered(response, 405)) {
    // Something came there meanwhile: fine if it is a collection.
    status = stat(path, true, st);
    if (status.isOk()) {
      return st.isDir ? Status::ok() : Status::fromErrno(ENOTDIR);
    }
    return status;
  }
  return failureOf(response);
}

Status WebDavStore::createFile(const std::string& path, mode_t mode) {
  StoreStat st;
  Status status = stat(path, true, st);
  if (status.isOk()) {
    return st.isDir ? Status::fromErrno(EISDIR) : Status::ok();
  }
  if (status.code() != Status::Code::kNotFound) {
    return status;
  }
  Request request;
  request.method = "PUT";
  request.url = urlOf(path, false);
  request.headers = {"Content-Type: application/octet-stream", "If-None-Match: *"};
  request.hasBody = true;
  Response response = perform(request);
  if (answered(response, 412)) {
    return Status::ok();  // made by someone else meanwhile
  }
  if (!succeeded(response)) {
    return failureOf(response);
  }
  return setMode(path, false, mode);
}

Status WebDavStore::move(const std::string& from, const std::string& to) {
  StoreStat st;
  Status status = stat(from, false, st);
  if (!status.isOk()) {
    return status;
  }
  Request request;
  request.method = "MOVE";
  request.url = urlOf(from, st.isDir);
  request.headers = {"Destination: " + urlOf(to, st.isDir), "Overwrite: F"};
  Response response = perform(request);
  if (answered(response, 412)) {
    return Status::fromErrno(EEXIST);  // never replaces what is there
  }
  if (answered(response, 404)) {
    return Status::error(Status::Code::kNotFound);
  }
  return succeeded(response) && !answered(response, 207) ? Status::ok() : failureOf(response);
}

Status WebDavStore::chmod(const std::string& path, mode_t mode) {
  return setMode(path, false, mode & 07777);
}

Status WebDavStore::remove(const std::string& path, bool recursive, const Expect& expect) {
  std::vector<DavNode> nodes;
  Status status = propfind(path, recursive ? "0" : "1", nodes);
  if (status.code() == Status::Code::kNotFound) {
    return Status::ok();
  }
  if (!status.isOk()) {
    return status;
  }
  const DavNode* node = nodeOf(nodes, topDecoded_ + "/" + path);
  bool isDir = node != nullptr ? node->isDir : (!nodes.empty() && nodes[0].isDir);
  if (!recursive && isDir && nodes.size() > 1) {
    return Status::error(Status::Code::kNotEmpty);
  }
  Request request;
  request.method = "DELETE";
  request.url = urlOf(path, isDir);
  if (!isDir) {
    addConditions(expect, request.headers);
  }
  if (!isDir && expect.kind == Expect::Kind::kVersion && !serverChecks(expect) &&
      (node == nullptr || versionOfNode(*node) != expect.version)) {
    return Status::error(Status::Code::kConflict, "the file changed");
  }
  Response response = perform(request);
  if (answered(response, 412) && expect.kind == Expect::Kind::kVersion && node != nullptr &&
      versionOfNode(*node) == expect.version) {
    // Read just before at the expected version, its tag only weak yet.
    request.headers.clear();
    response = perform(request);
  }
  if (answered(response, 404)) {
    return Status::ok();
  }
  if (answered(response, 412)) {
    return Status::error(Status::Code::kConflict, "the server refused the condition");
  }
  // A 207 lists what could not be removed.
  return succeeded(response) && !answered(response, 207) ? Status::ok() : failureOf(response);
}

Status WebDavStore::open(const std::string& /*path*/, const OpenMode& /*mode*/,
                         std::unique_ptr<StoreHandle>& /*out*/) {
  return Status::error(Status::Code::kFailed, "not supported by the WebDAV store");
}

}  // namespace velagent
