#include "stores/s3_store.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <set>

#include "server/agent_log.h"

namespace velagent {

namespace {

// CopyObject copies at most this much; a larger object would need
// UploadPartCopy, whose range header libcurl's signing cannot carry next
// to the copy source (s3_transport.h).
constexpr long long kMaxCopyBytes = 5LL << 30;
constexpr size_t kDeleteBatch = 1000;
const char kBinaryType[] = "Content-Type: application/octet-stream";
const char kXmlType[] = "Content-Type: application/xml";

S3Location locationOf(const std::string& url) {
  S3Location location;
  std::string ignored;
  parseS3Url(url, location, ignored);
  return location;
}

S3TransportOptions transportOptions(const S3Options& options) {
  S3TransportOptions out;
  out.location = locationOf(options.url);
  out.credentials = options.credentials;
  out.caFile = options.caFile;
  out.attempts = options.attempts;
  out.firstBackoffMs = options.retryWaitMs;
  return out;
}

Status serviceError(const S3Transport::Response& r) {
  if (r.fileError != 0) {
    return Status::fromErrno(r.fileError);
  }
  return Status::error(Status::Code::kServiceError, r.describe());
}

// A missing key; a missing bucket is the service's failure.
bool missing(const S3Transport::Response& r) {
  return r.answered(404) && r.errorCode() != "NoSuchBucket";
}

std::string nowMtime() {
  struct timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  return formatMtime(now.tv_sec, now.tv_nsec);
}

// What the headers of a HEAD or GET say of a file.
void describeFile(const S3Transport::Response& r, long long size, StoreStat& out) {
  out.isDir = false;
  out.isLink = false;
  out.size = size;
  time_t mtime = r.lastModified >= 0 ? r.lastModified : 0;
  auto stored = r.meta.find("mtime");
  if (stored != r.meta.end()) {
    parseMtime(stored->second, mtime);
  }
  out.mtime = mtime;
  unsigned mode = kS3DefaultFileMode;
  auto modeText = r.meta.find("mode");
  if (modeText != r.meta.end()) {
    parseMode(modeText->second, mode);
  }
  out.mode = mode;
  out.version = r.etag;
  out.settled = !r.etag.empty();
  out.identity = isContentEtag(r.etag);
}

void describeFolder(const S3Transport::Response* marker, time_t fallback, StoreStat& out) {
  out = StoreStat();
  out.isDir = true;
  out.mode = kS3DefaultFolderMode;
  out.mtime = fallback;
  if (marker == nullptr) {
    return;
  }
  out.mtime = marker->lastModified >= 0 ? marker->lastModified : fallback;
  auto stored = marker->meta.find("mtime");
  if (stored != marker->meta.end()) {
    parseMtime(stored->second, out.mtime);
  }
  auto modeText = marker->meta.find("mode");
  if (modeText != marker->meta.end()) {
    parseMode(modeText->second, out.mode);
  }
}

bool usableName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

std::string copySource(const S3Location& location, const std::string& key) {
  return "x-amz-copy-source: /" + location.bucket + "/" + s3Encode(key, true);
}

}  // namespace

bool S3Store::checkUrl(const std::string& url, std::string& error) {
  S3Location location;
  return parseS3Url(url, location, error);
}

S3Store::S3Store(const S3Options& options)
    : options_(options), location_(locationOf(options.url)), transport_(transportOptions(options)) {
  options_.partSize = std::max(options_.partSize, kMinPartSize);
}

S3Store::~S3Store() = default;

std::string S3Store::identity() const { return s3Identity(location_); }

S3Transport::Response S3Store::head(const std::string& key) {
  Request request;
  request.method = "HEAD";
  request.key = key;
  return transport_.perform(request);
}

Status S3Store::listKeys(const std::string& prefix, bool delimited, int limit, S3Listing& out) {
  out = S3Listing();
  std::string token;
  for (;;) {
    Request request;
    request.query = {{"list-type", "2"}, {"prefix", prefix}};
    if (delimited) {
      request.query.push_back({"delimiter", "/"});
    }
    request.query.push_back({"max-keys", std::to_string(limit > 0 ? limit : options_.listPage)});
    if (!token.empty()) {
      request.query.push_back({"continuation-token", token});
    }
    Response response = transport_.perform(request);
    if (!response.answered(200)) {
      return serviceError(response);
    }
    S3Listing page;
    std::string error;
    if (!parseListing(response.body, page, error)) {
      return Status::error(Status::Code::kServiceError, "s3: " + error);
    }
    out.objects.insert(out.objects.end(), page.objects.begin(), page.objects.end());
    out.prefixes.insert(out.prefixes.end(), page.prefixes.begin(), page.prefixes.end());
    if (limit > 0 || !page.truncated) {
      out.truncated = page.truncated;
      return Status::ok();
    }
    token = page.nextToken;
  }
}

Status S3Store::folderExists(const std::string& path, bool& exists) {
  S3Listing listing;
  Status status = listKeys(folderKey(path), false, 1, listing);
  exists = status.isOk() && !listing.objects.empty();
  return status;
}

Status S3Store::probe() {
  S3Listing listing;
  return listKeys(location_.prefix, true, 1, listing);
}

Status S3Store::stat(const std::string& path, bool /*followLast*/, StoreStat& out) {
  if (!path.empty()) {
    Response file = head(keyOf(path));
    if (file.answered(200)) {
      out = StoreStat();
      describeFile(file, file.length >= 0 ? file.length : 0, out);
      return Status::ok();
    }
    if (!missing(file)) {
      return serviceError(file);
    }
  }
  if (path.empty() && location_.prefix.empty()) {
    // The bucket itself: it has no marker.
    S3Listing listing;
    Status status = listKeys("", true, 1, listing);
    if (!status.isOk()) {
      return status;
    }
    describeFolder(nullptr, 0, out);
    return Status::ok();
  }
  Response marker = head(folderKey(path));
  if (marker.answered(200)) {
    describeFolder(&marker, 0, out);
    return Status::ok();
  }
  if (!missing(marker)) {
    return serviceError(marker);
  }
  // A folder that only its contents make (another tool wrote "a/b" without
  // a marker "a/").
  S3Listing listing;
  Status status = listKeys(folderKey(path), false, 1, listing);
  if (!status.isOk()) {
    return status;
  }
  if (listing.objects.empty() && !path.empty()) {
    return Status::error(Status::Code::kNotFound);
  }
  describeFolder(nullptr, listing.objects.empty() ? 0 : listing.objects[0].modified, out);
  return Status::ok();
}

Status S3Store::list(const std::string& path, std::vector<StoreEntry>& out) {
  const std::string prefix = folderKey(path);
  S3Listing listing;
  Status status = listKeys(prefix, true, 0, listing);
  if (!status.isOk()) {
    return status;
  }
  if (listing.objects.empty() && listing.prefixes.empty() && !path.empty()) {
    Response file = head(keyOf(path));
    if (file.answered(200)) {
      return Status::error(Status::Code::kNotDirectory);
    }
    return missing(file) ? Status::error(Status::Code::kNotFound) : serviceError(file);
  }
  std::set<std::string> files;
  for (const S3Object& object : listing.objects) {
    std::string name = object.key.substr(std::min(prefix.size(), object.key.size()));
    if (object.key.compare(0, prefix.size(), prefix) != 0 || !usableName(name)) {
      continue;  // the folder's own marker, or a key no path can name
    }
    StoreEntry entry;
    entry.name = name;
    entry.described = true;
    entry.stat.size = object.size;
    entry.stat.mtime = object.modified;
    entry.stat.mode = kS3DefaultFileMode;
    entry.stat.version = object.etag;
    entry.stat.settled = !object.etag.empty();
    entry.stat.identity = isContentEtag(object.etag);
    files.insert(name);
    out.push_back(std::move(entry));
  }
  for (const std::string& folder : listing.prefixes) {
    if (folder.compare(0, prefix.size(), prefix) != 0 || folder.size() <= prefix.size() + 1) {
      continue;
    }
    std::string name = folder.substr(prefix.size(), folder.size() - prefix.size() - 1);
    // A key "a" beside keys "a/...": stat() sees the file, and so does
    // the listing.
    if (!usableName(name) || files.count(name) != 0) {
      continue;
    }
    StoreEntry entry;
    entry.name = name;
    entry.isDir = true;
    out.push_back(std::move(entry));
  }
  return Status::ok();
}

Status S3Store::download(const std::string& path, ByteSink& target, StoreStat& copied,
                         const std::string& ifNoneMatch) {
  Request request;
  request.key = keyOf(path);
  request.target = &target;
  if (!ifNoneMatch.empty()) {
    request.headers.push_back("If-None-Match: \"" + bareEtag(ifNoneMatch) + "\"");
  }
  Response response = transport_.perform(request);
  if (response.answered(304)) {
    return Status::error(Status::Code::kNotModified);
  }
  if (missing(response)) {
    return Status::error(Status::Code::kNotFound);
  }
  if (!response.answered(200)) {
    return serviceError(response);
  }
  describeFile(response, response.received, copied);
  return Status::ok();
}

Status S3Store::checkExpected(const std::string& key, const Expect& expect) {
  if (expect.kind == Expect::Kind::kAnything) {
    return Status::ok();
  }
  Response now = head(key);
  if (now.answered(200)) {
    return expect.kind == Expect::Kind::kVersion && now.etag == bareEtag(expect.version)
               ? Status::ok()
               : Status::error(Status::Code::kConflict, "the service holds another version");
  }
  if (!missing(now)) {
    return serviceError(now);
  }
  return expect.kind == Expect::Kind::kAbsent
             ? Status::ok()
             : Status::error(Status::Code::kConflict, "the service no longer holds the file");
}

Status S3Store::upload(int source, const std::string& path, mode_t mode, const Expect& expect,
                       StoreStat& written, ContentHash& sent) {
  struct stat st;
  if (::fstat(source, &st) != 0) {
    return Status::fromErrno(errno);
  }
  // A file may not hide a folder of the same name (where a version is
  // expected, a file is there, not a folder).
  bool folder = false;
  Status status = expect.kind == Expect::Kind::kVersion ? Status::ok() : folderExists(path, folder);
  if (!status.isOk()) {
    return status;
  }
  if (folder) {
    return Status::fromErrno(EISDIR);
  }
  const std::string key = keyOf(path);
  const std::string mtime = formatMtime(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
  const std::vector<std::string> headers = {
      kBinaryType, "x-amz-meta-mode: " + formatMode(mode, false), "x-amz-meta-mtime: " + mtime};
  Hasher hasher;
  long long hashedUpTo = 0;
  const long long size = static_cast<long long>(st.st_size);
  if (size > options_.partSize) {
    std::string etag;
    status = uploadParts(source, key, size, headers, expect, hasher, hashedUpTo, etag);
    if (!status.isOk()) {
      return status;
    }
    sent = hasher.digest();
    written = StoreStat();
    written.size = size;
    written.mtime = st.st_mtim.tv_sec;
    written.mode = mode & 07777;
    written.version = etag;
    written.settled = !etag.empty();
    written.identity = false;  // it names how the content was cut, not the content
    return Status::ok();
  }

  bool quoted = quoteIfMatch_.load();
  for (int round = 0;; ++round) {
    Request request;
    request.method = "PUT";
    request.key = key;
    request.headers = headers;
    if (expect.kind == Expect::Kind::kAbsent) {
      request.headers.push_back("If-None-Match: *");
    } else if (expect.kind == Expect::Kind::kVersion) {
      const std::string tag = bareEtag(expect.version);
      request.headers.push_back("If-Match: " + (quoted ? "\"" + tag + "\"" : tag));
    }
    request.source = source;
    request.length = size;
    request.sourceHash = &hasher;
    request.hashedUpTo = &hashedUpTo;
    request.md5 = true;
    Response response = transport_.perform(request);
    if (response.answered(412)) {
      Response now = head(key);
      if (now.answered(200) && !response.md5.empty() && now.etag == response.md5 &&
          response.attempts > 1) {
        // An earlier attempt of this very request landed before its
        // connection was lost.
        response = now;
        response.code = 200;
      } else if (now.answered(200) && expect.kind == Expect::Kind::kVersion &&
                 now.etag == bareEtag(expect.version) && round == 0) {
        // The version matches: the service wants the tag in the other form.
        quoted = !quoted;
        quoteIfMatch_.store(quoted);
        logLine(std::string("s3: the service refused a matching If-Match; ") +
                (quoted ? "quoted" : "bare") + " entity tags from now on");
        continue;
      } else {
        return Status::error(Status::Code::kConflict, "the service holds another version");
      }
    }
    if (!response.answered(200)) {
      return serviceError(response);
    }
    if (hashedUpTo != size) {
      return Status::fromErrno(EIO);
    }
    sent = hasher.digest();
    written = StoreStat();
    written.size = size;
    written.mtime = st.st_mtim.tv_sec;
    written.mode = mode & 07777;
    written.version = response.etag;
    written.settled = !response.etag.empty();
    // The ETag names the content only where it is the MD5 of the bytes
    // sent (not so in an encrypted bucket).
    written.identity = !response.etag.empty() && response.etag == response.md5;
    return Status::ok();
  }
}

Status S3Store::uploadParts(int source, const std::string& key, long long size,
                            const std::vector<std::string>& headers, const Expect& expect,
                            Hasher& hasher, long long& hashedUpTo, std::string& etag) {
  Status status = checkExpected(key, expect);
  if (!status.isOk()) {
    return status;
  }
  Request start;
  start.method = "POST";
  start.key = key;
  start.query = {{"uploads", ""}};
  start.headers = headers;
  start.hasBody = true;
  Response started = transport_.perform(start);
  if (!started.answered(200)) {
    return serviceError(started);
  }
  std::string uploadId;
  std::string error;
  if (!parseUploadId(started.body, uploadId, error)) {
    return Status::error(Status::Code::kServiceError, "s3: " + error);
  }
  // From here on every way out that is not a completion aborts the upload,
  // so that the service keeps no parts (which it would bill and hide).
  auto abort = [&](const Status& why) {
    Request request;
    request.method = "DELETE";
    request.key = key;
    request.query = {{"uploadId", uploadId}};
    Response aborted = transport_.perform(request);
    if (!aborted.succeeded() && !missing(aborted)) {
      logLine("s3: could not abort the multipart upload of " + key + ": " + aborted.describe());
    }
    return why;
  };
  const long long partSize = std::max(options_.partSize, (size + kMaxParts - 1) / kMaxParts);
  std::vector<std::string> etags;
  for (long long offset = 0; offset < size; offset += partSize) {
    Request part;
    part.method = "PUT";
    part.key = key;
    part.query = {{"partNumber", std::to_string(etags.size() + 1)}, {"uploadId", uploadId}};
    part.source = source;
    part.offset = offset;
    part.length = std::min(partSize, size - offset);
    part.sourceHash = &hasher;
    part.hashedUpTo = &hashedUpTo;
    Response response = transport_.perform(part);
    if (!response.answered(200) || response.etag.empty()) {
      return abort(response.answered(200)
                       ? Status::error(Status::Code::kServiceError, "s3: a part without an ETag")
                       : serviceError(response));
    }
    etags.push_back(response.etag);
  }
  if (hashedUpTo != size) {
    return abort(Status::fromErrno(EIO));
  }
  // Services that ignore conditions on the completion (Ceph's gateway
  // does) leave this check: the version read again just before.
  status = checkExpected(key, expect);
  if (!status.isOk()) {
    return abort(status);
  }
  Response completed;
  for (int round = 0;; ++round) {
    Request complete;
    complete.method = "POST";
    complete.key = key;
    complete.query = {{"uploadId", uploadId}};
    complete.headers = {kXmlType};
    if (expect.kind == Expect::Kind::kAbsent) {
      complete.headers.push_back("If-None-Match: *");
    } else if (expect.kind == Expect::Kind::kVersion) {
      const std::string tag = bareEtag(expect.version);
      complete.headers.push_back("If-Match: " + (quoteIfMatch_ ? "\"" + tag + "\"" : tag));
    }
    complete.hasBody = true;
    complete.body = completeBody(etags);
    completed = transport_.perform(complete);
    if (!completed.answered(412)) {
      break;
    }
    // Refused: another version, or the tag in the form this service does
    // not take (the HEAD just before showed the expected one).
    Response now = head(key);
    if (round > 0 || expect.kind != Expect::Kind::kVersion || !now.answered(200) ||
        now.etag != bareEtag(expect.version)) {
      return abort(Status::error(Status::Code::kConflict, "the service holds another version"));
    }
    quoteIfMatch_.store(!quoteIfMatch_.load());
  }
  S3Error failure;
  // A completion can fail after its 200 has gone out: the error is the body.
  if (!completed.answered(200) || parseS3Error(completed.body, failure)) {
    if (completed.answered(200)) {
      return abort(Status::error(Status::Code::kServiceError, "s3: 200 " + failure.code));
    }
    return abort(serviceError(completed));
  }
  // The answer names the new ETag on some services (Ceph's gateway leaves
  // it empty); it is the one computed from the parts wherever S3's rule
  // holds.
  std::string answered;
  etag = parseCompleteResult(completed.body, answered) && !answered.empty() ? answered
                                                                            : multipartEtag(etags);
  return Status::ok();
}

Status S3Store::makeDirs(const std::string& path) {
  if (path.empty()) {
    return Status::ok();
  }
  // The common case, a folder that is there with its marker: one request.
  Response there = head(folderKey(path));
  if (there.answered(200)) {
    return Status::ok();
  }
  if (!missing(there)) {
    return serviceError(there);
  }
  StoreStat st;
  Status status = stat(path, true, st);
  if (status.isOk()) {
    return st.isDir ? Status::ok() : Status::fromErrno(ENOTDIR);
  }
  if (status.code() != Status::Code::kNotFound) {
    return status;
  }
  // Every level gets a marker, so that each stays when its last file goes,
  // as a folder does.
  size_t end = 0;
  while (end != std::string::npos) {
    end = path.find('/', end + 1);
    const std::string level = path.substr(0, end);
    Response file = head(keyOf(level));
    if (file.answered(200)) {
      return Status::fromErrno(ENOTDIR);
    }
    if (!missing(file)) {
      return serviceError(file);
    }
    Response marker = head(folderKey(level));
    if (marker.answered(200)) {
      continue;
    }
    if (!missing(marker)) {
      return serviceError(marker);
    }
    Request request;
    request.method = "PUT";
    request.key = folderKey(level);
    request.headers = {kBinaryType, "If-None-Match: *", "x-amz-meta-mtime: " + nowMtime()};
    request.hasBody = true;
    Response made = transport_.perform(request);
    // 412: made by someone else meanwhile.
    if (!made.answered(200) && !made.answered(412)) {
      return serviceError(made);
    }
  }
  return Status::ok();
}

Status S3Store::createFile(const std::string& path, mode_t mode) {
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
  request.key = keyOf(path);
  request.headers = {kBinaryType, "If-None-Match: *", "x-amz-meta-mode: " + formatMode(mode, false),
                     "x-amz-meta-mtime: " + nowMtime()};
  request.hasBody = true;
  Response response = transport_.perform(request);
  if (response.answered(412)) {
    return Status::ok();  // made by someone else meanwhile
  }
  return response.answered(200) ? Status::ok() : serviceError(response);
}

Status S3Store::copy(const std::string& from, const std::string& to, long long size,
                     const std::vector<std::string>& replaceHeaders, std::string& etag) {
  if (size > kMaxCopyBytes) {
    return Status::error(Status::Code::kFailed,
                         "the service copies objects of at most 5 GiB, and renames are copies");
  }
  Request request;
  request.method = "PUT";
  request.key = to;
  request.headers = {copySource(location_, from)};
  if (!replaceHeaders.empty()) {
    request.headers.push_back("x-amz-metadata-directive: REPLACE");
    request.headers.insert(request.headers.end(), replaceHeaders.begin(), replaceHeaders.end());
  }
  request.hasBody = true;
  Response response = transport_.perform(request);
  if (missing(response)) {
    return Status::error(Status::Code::kNotFound);
  }
  if (!response.answered(200)) {
    return serviceError(response);
  }
  S3Error failure;
  if (!parseCopyResult(response.body, etag, failure)) {
    return Status::error(Status::Code::kServiceError, "s3: 200 " + failure.code);
  }
  return Status::ok();
}

Status S3Store::removeKeys(const std::vector<std::string>& keys) {
  for (size_t from = 0; from < keys.size(); from += kDeleteBatch) {
    std::vector<std::string> batch(keys.begin() + from,
                                   keys.begin() + std::min(keys.size(), from + kDeleteBatch));
    Request request;
    request.method = "POST";
    request.query = {{"delete", ""}};
    request.hasBody = true;
    request.body = deleteBody(batch);
    request.headers = {kXmlType, "Content-MD5: " + md5Base64(request.body)};
    Response response = transport_.perform(request);
    if (!response.answered(200)) {
      return serviceError(response);
    }
    std::vector<std::pair<std::string, S3Error>> failed;
    std::string error;
    if (!parseDeleteResult(response.body, failed, error)) {
      return Status::error(Status::Code::kServiceError, "s3: " + error);
    }
    for (const auto& failure : failed) {
      if (failure.second.code != "NoSuchKey") {
        return Status::error(Status::Code::kServiceError,
                             "s3: " + failure.second.code + " removing " + failure.first);
      }
    }
  }
  return Status::ok();
}

Status S3Store::move(const std::string& from, const std::string& to) {
  if (from == to) {
    return Status::ok();
  }
  Response file = head(keyOf(from));
  if (!file.answered(200)) {
    if (!missing(file)) {
      return serviceError(file);
    }
    return moveFolder(from, to);
  }
  bool folder = false;
  Status status = folderExists(to, folder);
  if (!status.isOk()) {
    return status;
  }
  if (folder) {
    return Status::fromErrno(EISDIR);
  }
  std::string etag;
  status = copy(keyOf(from), keyOf(to), file.length, {}, etag);
  if (!status.isOk()) {
    return status;
  }
  if (isContentEtag(file.etag) && etag != file.etag) {
    return Status::error(
        Status::Code::kServiceError,
        "s3: the copy of " + from + " does not hold its content; the source stays");
  }
  Request request;
  request.method = "DELETE";
  request.key = keyOf(from);
  Response removed = transport_.perform(request);
  return removed.succeeded() || missing(removed) ? Status::ok() : serviceError(removed);
}

Status S3Store::moveFolder(const std::string& from, const std::string& to) {
  if (from.empty() || to.compare(0, from.size() + 1, from + "/") == 0) {
    return Status::fromErrno(EINVAL);  // the top, or a folder into itself
  }
  const std::string source = folderKey(from);
  S3Listing tree;
  Status status = listKeys(source, false, 0, tree);
  if (!status.isOk()) {
    return status;
  }
  if (tree.objects.empty()) {
    return Status::error(Status::Code::kNotFound);
  }
  Response file = head(keyOf(to));
  if (file.answered(200)) {
    return Status::fromErrno(ENOTDIR);
  }
  if (!missing(file)) {
    return serviceError(file);
  }
  const std::string target = folderKey(to);
  S3Listing occupied;
  status = listKeys(target, false, 2, occupied);
  if (!status.isOk()) {
    return status;
  }
  for (const S3Object& object : occupied.objects) {
    if (object.key != target) {
      return Status::fromErrno(ENOTEMPTY);
    }
  }

  // Copies first; the sources go only once every copy is there.
  std::vector<std::string> copies;
  auto undo = [&](const Status& why) {
    Status cleaned = removeKeys(copies);
    if (!cleaned.isOk()) {
      logLine("s3: copies of a failed folder rename stay below " + target + ": " +
              cleaned.message());
    }
    return why;
  };
  std::map<std::string, const S3Object*> expected;
  for (const S3Object& object : tree.objects) {
    const std::string copyKey = target + object.key.substr(source.size());
    std::string etag;
    status = copy(object.key, copyKey, object.size, {}, etag);
    if (!status.isOk()) {
      return undo(status.code() == Status::Code::kNotFound
                      ? Status::error(Status::Code::kServiceError,
                                      "s3: " + object.key + " went during the rename")
                      : status);
    }
    copies.push_back(copyKey);
    expected[copyKey] = &object;
  }
  // The check: every copy listed with the size of its source, and the
  // content's MD5 where the source's ETag is one.
  S3Listing copied;
  status = listKeys(target, false, 0, copied);
  if (!status.isOk()) {
    return undo(status);
  }
  size_t confirmed = 0;
  for (const S3Object& object : copied.objects) {
    auto it = expected.find(object.key);
    if (it == expected.end()) {
      continue;
    }
    const S3Object& original = *it->second;
    if (object.size != original.size ||
        (isContentEtag(original.etag) && object.etag != original.etag)) {
      return undo(Status::error(Status::Code::kServiceError,
                                "s3: the copy " + object.key + " differs from its source"));
    }
    ++confirmed;
  }
  if (confirmed != expected.size()) {
    return undo(Status::error(Status::Code::kServiceError, "s3: copies missing after the rename"));
  }
  // The source's own marker last: until it goes, the old name stays a
  // folder.
  std::vector<std::string> sources;
  for (const S3Object& object : tree.objects) {
    if (object.key != source) {
      sources.push_back(object.key);
    }
  }
  if (std::any_of(tree.objects.begin(), tree.objects.end(),
                  [&](const S3Object& object) { return object.key == source; })) {
    sources.push_back(source);
  }
  return removeKeys(sources);
}

Status S3Store::chmod(const std::string& path, mode_t mode) {
  mode &= 07777;
  if (!path.empty()) {
    Response file = head(keyOf(path));
    if (file.answered(200)) {
      auto stored = file.meta.find("mtime");
      const std::string mtime =
          stored != file.meta.end() ? stored->second : formatMtime(file.lastModified, 0);
      std::string etag;
      // Another writer's content that comes in meanwhile is copied as it
      // is, with this mode: nothing is lost, only the mode may be off.
      return copy(keyOf(path), keyOf(path), file.length,
                  {kBinaryType, "x-amz-meta-mode: " + formatMode(mode, false),
                   "x-amz-meta-mtime: " + mtime},
                  etag);
    }
    if (!missing(file)) {
      return serviceError(file);
    }
  } else if (location_.prefix.empty()) {
    return Status::error(Status::Code::kFailed, "the top of a bucket has no mode to change");
  }
  StoreStat st;
  Status status = stat(path, true, st);
  if (!status.isOk()) {
    return status;
  }
  Response marker = head(folderKey(path));
  std::string mtime = nowMtime();
  if (marker.answered(200)) {
    auto stored = marker.meta.find("mtime");
    mtime = stored != marker.meta.end() ? stored->second : formatMtime(marker.lastModified, 0);
  }
  Request request;
  request.method = "PUT";
  request.key = folderKey(path);
  request.headers = {kBinaryType, "x-amz-meta-mode: " + formatMode(mode, true),
                     "x-amz-meta-mtime: " + mtime};
  request.hasBody = true;
  Response response = transport_.perform(request);
  return response.answered(200) ? Status::ok() : serviceError(response);
}

Status S3Store::remove(const std::string& path, bool recursive, const Expect& expect) {
  if (path.empty()) {
    return Status::error(Status::Code::kFailed, "the top of the store cannot be removed");
  }
  Response file = head(keyOf(path));
  if (file.answered(200)) {
    // The gateway ignores If-Match on DELETE: the version just read is
    // what is compared.
    if (expect.kind == Expect::Kind::kAbsent ||
        (expect.kind == Expect::Kind::kVersion && file.etag != bareEtag(expect.version))) {
      return Status::error(Status::Code::kConflict, "the service holds another version");
    }
    Request request;
    request.method = "DELETE";
    request.key = keyOf(path);
    Response removed = transport_.perform(request);
    return removed.succeeded() || missing(removed) ? Status::ok() : serviceError(removed);
  }
  if (!missing(file)) {
    return serviceError(file);
  }
  const std::string marker = folderKey(path);
  S3Listing tree;
  Status status = listKeys(marker, false, recursive ? 0 : 2, tree);
  if (!status.isOk()) {
    return status;
  }
  std::vector<std::string> keys;
  bool hasMarker = false;
  for (const S3Object& object : tree.objects) {
    if (object.key == marker) {
      hasMarker = true;
    } else {
      keys.push_back(object.key);
    }
  }
  if (!recursive && !keys.empty()) {
    return Status::error(Status::Code::kNotEmpty);
  }
  // The marker last: a removal cut short leaves the folder.
  if (hasMarker) {
    keys.push_back(marker);
  }
  return removeKeys(keys);
}

Status S3Store::open(const std::string& /*path*/, const OpenMode& /*mode*/,
                     std::unique_ptr<StoreHandle>& /*out*/) {
  return Status::error(Status::Code::kFailed, "not supported by the S3 store");
}

}  // namespace velagent
