// A WebDAV server as the store: every store call is one or a few HTTP
// requests (libcurl) on the collection at the configured URL.
//
//   stat          PROPFIND, Depth 0 (kind, size, last change, mode property)
//   list          PROPFIND, Depth 1, without the collection itself
//   download      GET, streamed into the mirror's temporary file
//   upload        PUT, streamed from the mirror file, then PROPPATCH of the mode
//   makeDirs      MKCOL of each missing level, top first
//   createFile    PUT of no bytes where nothing is, then the mode
//   move          MOVE with "Overwrite: F": an occupied destination is refused
//   chmod         PROPPATCH of the mode property
//   remove        DELETE; without `recursive` a folder is checked empty first
//
// The server has no links, so nothing is ever kRefused or isLink. A
// failure of the server (not reached, a refused login, a status the
// mapping does not expect) is kServiceError with "webdav: " and the HTTP
// status or the transfer error; credentials never appear in any text.
// Handles (tarn.create) are not supported.
//
// Thread safety: see store.h. Each call borrows a libcurl handle from a
// pool and gives it back after, so a handle, and the server connection it
// keeps alive, serves one request at a time and is reused by the next.
// curl_global_init must have run before the first store is made.
#ifndef VEL_TOOLS_FILEAGENT_STORES_WEBDAV_STORE_H_
#define VEL_TOOLS_FILEAGENT_STORES_WEBDAV_STORE_H_

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "stores/store.h"
#include "stores/webdav_protocol.h"

namespace velagent {

struct WebDavOptions {
  std::string url;       // http(s) URL of the collection that is the store
  std::string user;      // empty: no login
  std::string password;  // sent with basic authentication
  std::string caFile;    // certificates to trust for HTTPS besides the system's
};

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

  // One HTTP exchange (defined with the transport).
  struct Request;
  struct Response;

 private:
  class Lease;

  // The URL of `path`, a collection's with a trailing slash.
  std::string urlOf(const std::string& path, bool collection) const;
  Response perform(const Request& request);
  // PROPFIND of `path` with `depth` ("0" or "1"); the responses, or the
  // failure (kNotFound for 404).
  Status propfind(const std::string& path, const char* depth, std::vector<DavNode>& out);
  Status setMode(const std::string& path, bool collection, mode_t mode);

  WebDavOptions options_;
  std::string origin_;      // scheme://host[:port]
  std::string basePath_;    // path of the top collection, as given, ending in "/"
  std::string topDecoded_;  // the same decoded, without the trailing slash
  std::mutex poolMutex_;
  std::vector<void*> idle_;  // CURL handles, each with its live connection
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_STORES_WEBDAV_STORE_H_
