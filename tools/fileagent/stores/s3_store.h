// A bucket of an S3 service (Ceph's gateway, a cloud) as the store: every
// store call is one or a few signed requests (s3_transport.h) on the keys
// below the configured prefix. Folders live on the flat key space the way
// established S3 tools keep them (s3_protocol.h): a folder is every key
// below "name/", an empty one the zero-byte marker "name/".
//
//   stat        HEAD of the key; else HEAD of the folder marker; else a
//               listing of one key below it (a folder made by another tool)
//   list        ListObjectsV2 with the delimiter "/", page after page;
//               files are `described` (size, server time, version), but
//               their mode and stored mtime need stat(): a listing does
//               not carry user metadata, so the entries hold the defaults
//   download    GET, streamed into the sink; If-None-Match gives 304
//   upload      PUT from the mirror file; above the part size a multipart
//               upload (its parts one after another), aborted on any
//               failure so that no parts are left behind
//   makeDirs    a marker for each level that has none
//   createFile  PUT of no bytes with If-None-Match: *
//   move        a server-side copy, checked, then the removal of the
//               source; a folder: every key copied and checked, then the
//               sources removed, its own marker last. Stopped midway
//               (a crash, a lost connection) both names hold the tree,
//               never neither; a failure removes the copies made
//   chmod       a copy of the object onto itself with new metadata; a
//               folder's marker written again
//   remove      DELETE; a folder's keys in batches (DeleteObjects), its
//               marker last
//
// Versions: the ETag (bare) is a file's version; it changes whenever the
// content does, and it is settled at once (derived from the content, not
// from a clock). A single-part ETag is the content's MD5, which names that
// content wherever it is copied: `identity`. A multipart ETag depends on
// the part size and an encrypted bucket's ETag on the encryption, so
// neither is an identity. A bucket that keeps versions changes nothing
// here: the ETag still follows the content, where a version id changes
// with every write and every copy (and so with every rename).
//
// Conditions, as Ceph's gateway (16.2) answers them: GET If-None-Match
// gives 304; PUT If-None-Match: * refuses an existing key (412); PUT
// If-Match refuses another version (412) and a missing key (412, where
// others say 404), and must carry the bare hex: a quoted tag (the form
// HTTP and other services use) is refused even when it matches. The store
// sends the quoted form until a refusal whose HEAD shows the expected tag
// says the service wants the other one, and that form from then on.
// DELETE ignores If-Match, and CompleteMultipartUpload ignores both
// conditions: there the version is read again (HEAD) just before the
// DELETE or the completion, which leaves the window of one request in
// which another client's change goes unseen. A conditional PUT that is
// sent again after a lost connection and then refused is checked against
// the MD5 of what was sent: the first attempt may have landed. The
// gateway's answer to a completion names no ETag: the store computes it
// from the parts' ETags, as S3 services do.
//
// A failure of the service (not reached, credentials refused, an
// unexpected status) is kServiceError with "s3: " and the HTTP status and
// S3 error code, or the transfer error; credentials never appear in any
// text. Handles (tarn.create) are not supported.
//
// Thread safety: see store.h; the transport pools its connections.
// curl_global_init must have run before the first store is made.
#ifndef VEL_TOOLS_FILEAGENT_STORES_S3_STORE_H_
#define VEL_TOOLS_FILEAGENT_STORES_S3_STORE_H_

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "stores/s3_protocol.h"
#include "stores/s3_transport.h"
#include "stores/store.h"

namespace velagent {

struct S3Options {
  std::string url;  // http(s)://host[:port]/bucket[/prefix]
  S3Credentials credentials;
  std::string caFile;  // certificates to trust for HTTPS besides the system's
  // Files above this size go up in parts of this size (S3 wants at least
  // 5 MiB for every part but the last, and at most 10,000 parts: a larger
  // file gets larger parts). Each part costs the gateway a little on top
  // of its bytes: 64 MiB parts send a file about as fast as one PUT does.
  long long partSize = 64LL << 20;
  int attempts = 4;        // sends of one request at most (s3_transport.h)
  long retryWaitMs = 100;  // the wait before the first resend; it doubles
  int listPage = 1000;     // keys per listing page (S3 gives at most 1000)
};

class S3Store : public Store {
 public:
  // False with `error` when `url` is no S3 URL the store can use.
  static bool checkUrl(const std::string& url, std::string& error);
  // The smallest part size S3 services accept, and the most parts.
  static constexpr long long kMinPartSize = 5LL << 20;
  static constexpr long long kMaxParts = 10000;

  explicit S3Store(const S3Options& options);
  ~S3Store() override;
  S3Store(const S3Store&) = delete;
  S3Store& operator=(const S3Store&) = delete;

  // Lists one key of the store: ok, or why the service cannot serve it
  // (no such bucket, credentials refused, not reached).
  Status probe();

  std::string identity() const override;
  Status stat(const std::string& path, bool followLast, StoreStat& out) override;
  Status list(const std::string& path, std::vector<StoreEntry>& out) override;
  Status download(const std::string& path, ByteSink& target, StoreStat& copied,
                  const std::string& ifNoneMatch) override;
  Status upload(int source, const std::string& path, mode_t mode, const Expect& expect,
                StoreStat& written, ContentHash& sent) override;
  Status makeDirs(const std::string& path) override;
  Status createFile(const std::string& path, mode_t mode) override;
  Status move(const std::string& from, const std::string& to) override;
  Status chmod(const std::string& path, mode_t mode) override;
  Status remove(const std::string& path, bool recursive, const Expect& expect) override;
  Status open(const std::string& path, const OpenMode& mode,
              std::unique_ptr<StoreHandle>& out) override;

 private:
  using Request = S3Transport::Request;
  using Response = S3Transport::Response;

  std::string keyOf(const std::string& path) const { return location_.prefix + path; }
  // The marker of the folder `path` ("" for the top: the prefix itself).
  std::string folderKey(const std::string& path) const {
    return path.empty() ? location_.prefix : location_.prefix + path + "/";
  }
  Response head(const std::string& key);
  // Pages of ListObjectsV2 below `prefix` into `out` (with the delimiter
  // "/" when `delimited`); `limit` > 0 stops after the first page of that
  // many keys.
  Status listKeys(const std::string& prefix, bool delimited, int limit, S3Listing& out);
  // True when some key lies below the folder marker of `path`.
  Status folderExists(const std::string& path, bool& exists);
  // A multipart upload; `etag` gets the new version.
  Status uploadParts(int source, const std::string& key, long long size,
                     const std::vector<std::string>& headers, const Expect& expect, Hasher& hasher,
                     long long& hashedUpTo, std::string& etag);
  // kOk when the service holds what `expect` says at `key`, kConflict when
  // not.
  Status checkExpected(const std::string& key, const Expect& expect);
  // A server-side copy of `from` onto `to` with its metadata, or with
  // `replaceHeaders` instead; `etag` gets the copy's ETag.
  Status copy(const std::string& from, const std::string& to, long long size,
              const std::vector<std::string>& replaceHeaders, std::string& etag);
  // DeleteObjects in batches of 1000, in the order given.
  Status removeKeys(const std::vector<std::string>& keys);
  Status moveFolder(const std::string& from, const std::string& to);

  S3Options options_;
  S3Location location_;
  S3Transport transport_;
  // If-Match carries the tag quoted, as HTTP has it, until the service
  // refuses a quoted tag that matches (Ceph's gateway does): then bare.
  std::atomic<bool> quoteIfMatch_{true};
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_STORES_S3_STORE_H_
