// A WebDAV server as the store: every store call is one or a few HTTP
// requests (http_client.h) on the collection at the configured URL.
//
//   stat          PROPFIND, Depth 0 (kind, size, last change, version, mode)
//   list          PROPFIND, Depth 1, without the collection itself
//   download      GET (with If-None-Match), streamed into the mirror's file
//   upload        PUT (with If-Match or If-None-Match), streamed from the
//                 mirror file, then a PROPPATCH of the mode when needed
//   makeDirs      MKCOL of each missing level, top first
//   createFile    PUT of no bytes with If-None-Match, then the mode
//   move          MOVE with "Overwrite: F": an occupied destination is refused
//   chmod         PROPPATCH of the mode property
//   remove        DELETE (with If-Match); without `recursive` a folder is
//                 checked empty first
//
// Servers differ (docs/webdav-servers.md); what the store needs to know of
// one it finds out once, on first need, without changing anything there:
//  - whether it keeps dead properties: a PROPPATCH that removes a property
//    nobody sets, on the top collection. Where it does not, files and
//    folders read the default modes, every change but chmod leaves the
//    mode out (one log line per command) and chmod is kFailed with a text
//    that names the server's limit;
//  - whether it honours If-Match and If-None-Match on PUT and DELETE: a PUT
//    of no bytes to a new name of its own (".vel-probe-...") with an
//    If-Match no resource can meet, which such a server refuses (412); one
//    that ignores it makes the file, which is removed at once. Where the
//    conditions are not honoured, the store reads the version again just
//    before the PUT or DELETE (the window between that read and the end of
//    the request is documented with the servers) and sends them anyway.
//  - which server it is (the Server header), for what its tags mean.
// A version is the server's entity tag without a weak mark, else its last
// change and size (versionOf in webdav_protocol.h); an If-Match never
// carries a weak tag. A 412 on a version the server still holds (Apache
// refuses a weak tag for a second after a write) is followed by the same
// request without the condition.
//
// Answers are remembered for a short window (stat_cache.h; kCacheWindow
// unless the options say otherwise): a listing answers the stats of each
// entry that follow it, a lookup the next ones of its path; a download
// or a change of a path forgets it.
//
// The server has no links, so nothing is ever kRefused or isLink. A
// failure of the server (not reached, a refused login, a status the
// mapping does not expect) is kServiceError with "webdav: " and the HTTP
// status or the transfer error; credentials never appear in any text.
// Handles (tarn.create) are not supported.
//
// Thread safety: see store.h. curl_global_init must have run before the
// first store is made.
#ifndef VEL_TOOLS_FILEAGENT_STORES_WEBDAV_STORE_H_
#define VEL_TOOLS_FILEAGENT_STORES_WEBDAV_STORE_H_

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "stores/http_client.h"
#include "stores/stat_cache.h"
#include "stores/store.h"
#include "stores/webdav_protocol.h"

namespace velagent {

// How long an answer of the server answers again, unless the options say.
constexpr std::chrono::milliseconds kCacheWindow{2000};

struct WebDavOptions {
  std::string url;       // http(s) URL of the collection that is the store
  std::string user;      // empty: no login
  std::string password;  // sent with basic authentication
  std::string caFile;    // certificates to trust for HTTPS besides the system's
  // How long an answer of the server answers again (0: never).
  std::chrono::milliseconds cacheWindow{kCacheWindow};
};
// The start of the names of the store's probes; listings never show them.
constexpr const char* kProbePrefix = ".vel-probe-";

class WebDavStore : public Store {
 public:
  // False with `error` when `url` is no http(s) URL the store can use
  // (user information in it is refused: credentials go in `options`).
  static bool checkUrl(const std::string& url, std::string& error);

  explicit WebDavStore(const WebDavOptions& options);
  ~WebDavStore() override;
  WebDavStore(const WebDavStore&) = delete;
  WebDavStore& operator=(const WebDavStore&) = delete;

  // Asks the server about the top collection: ok, or why it cannot serve.
  Status probe();

  Status stat(const std::string& path, bool followLast, StoreStat& out) override;
  Status list(const std::string& path, std::vector<StoreEntry>& out) override;
  std::string identity() const override;
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
  enum Learned : int { kUnknown, kYes, kNo };
  // What a change knew of its path before it was made.
  enum class Prior { kUnknown, kAbsent, kPresent };

  // The URL of `path`, a collection's with a trailing slash.
  std::string urlOf(const std::string& path, bool collection) const;
  // perform() of the client, learning which server answers.
  HttpResponse send(const HttpRequest& request);
  // PROPFIND of `path` with `depth` ("0" or "1"): the responses and the
  // answer's date, or the failure (kNotFound for 404).
  Status propfind(const std::string& path, const char* depth, std::vector<DavNode>& out,
                  time_t& date);
  // A PROPFIND whatever the cache holds; the answer is remembered.
  Status statFresh(const std::string& path, StoreStat& out);
  StoreStat describe(const DavNode& node, time_t date);
  // Whether the server keeps dead properties (asked once).
  Status propertiesKept(bool& kept);
  // Whether the server honours conditions on PUT and DELETE (asked once;
  // false while that cannot be told).
  bool conditionsHonoured();
  // Reads the version of `path` again and compares it with `expect`:
  // ok, kConflict, or the failure. `now` gets what was found.
  Status recheck(const std::string& path, const Expect& expect, Prior& prior, StoreStat& now);
  Status setMode(const std::string& path, bool collection, mode_t mode);
  // After an answer that may say a folder on the way is missing (though
  // the cache said it was there: someone removed it meanwhile): asks the
  // server and makes the folders of `path` again; true when it made them.
  bool remade(const std::string& path);
  // After a change of `path` that leaves the mode out: sets `mode` unless
  // the server keeps none (logged) or holds it already (`before`, `prior`:
  // what was known of the path before the change).
  Status storeMode(const std::string& path, bool collection, mode_t mode, Prior prior,
                   const StoreStat& before);
  std::string propertyLimit();

  WebDavOptions options_;
  HttpClient http_;
  StatCache cache_;
  std::string origin_;      // scheme://host[:port]
  std::string basePath_;    // path of the top collection, as given, ending in "/"
  std::string topDecoded_;  // the same decoded, without the trailing slash
  std::atomic<int> kind_{static_cast<int>(DavServerKind::kUnknown)};
  std::atomic<int> properties_{kUnknown};
  std::atomic<int> conditions_{kUnknown};
  std::atomic<int> tags_{kUnknown};  // PROPFIND gives files a getetag
  std::mutex probeMutex_;            // one probe at a time; guards propertyLimit_
  std::string propertyLimit_;        // why modes cannot be kept, when they cannot
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_STORES_WEBDAV_STORE_H_
