// HTTP for the stores that live on a network service (WebDAV, S3): one
// place for the connections, the login, the TLS options, the time-outs and
// the retry policy, so that no store writes its own.
//
// Connections (HTTP/1.1): perform() borrows a libcurl handle from a pool
// and gives it back after, so a handle, and the server connection it keeps
// alive, serves one request at a time and is reused by the next request of
// any thread. A connection the server closed while it sat in the pool is
// replaced by libcurl: before the request goes out, or, when the request
// finds it closed before any answer, by sending the request again on a new
// one (an upload's body is read again from its start).
//
// Retries (the whole policy; the stores rely on it and add none):
//  - a 503 answer: the server did not act on the request, so it is sent
//    again, whatever its method, after Retry-After when the server gives
//    one (at most kMostRetryPause) or else after a short pause, at most
//    twice;
//  - a connection that ended without any answer: a request marked
//    `replayable` (the default for GET, HEAD, OPTIONS, PROPFIND, PROPPATCH,
//    PUT, DELETE and MKCOL) is sent once more on a fresh connection, at
//    once. A MOVE, and any request whose outcome depends on the state it
//    finds (a conditional PUT or DELETE), is not: the server may have acted
//    on it before the connection went, and a second copy would find its
//    own work.
//  A request whose body was partly written into its target is never sent
//  again.
//
// Thread safety: perform() may be called from several threads at once; an
// HttpRequest and its target, source and hasher belong to one call.
// curl_global_init must have run before the first client is made.
// Errors are values (HttpResponse), never exceptions.
#ifndef VEL_TOOLS_FILEAGENT_STORES_HTTP_CLIENT_H_
#define VEL_TOOLS_FILEAGENT_STORES_HTTP_CLIENT_H_

#include <ctime>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "fs/byte_sink.h"
#include "fs/content_hash.h"

namespace velagent {

struct HttpOptions {
  std::string user;      // empty: no login
  std::string password;  // sent with basic authentication
  std::string caFile;    // certificates to trust for HTTPS besides the system's
  long connectSeconds = 15;
  // A transfer that moves less than a byte a second for this long is given
  // up: a server that stalls must not hold an agent thread for ever.
  long stallSeconds = 60;
  // The pause before the first repeat of a request answered with 503 and
  // no Retry-After; the second waits four times as long.
  long retryPauseMs = 250;
};

// The longest Retry-After that is waited for; a longer one is cut to this.
constexpr long kMostRetryPause = 5;

struct HttpRequest {
  std::string method = "GET";
  std::string url;
  std::vector<std::string> headers;  // "Name: value"
  bool hasBody = false;              // `body` is sent, even when empty
  std::string body;
  int source = -1;               // a body streamed from this descriptor ...
  long long sourceSize = 0;      // ... of this many bytes from offset 0 ...
  Hasher* sourceHash = nullptr;  // ... hashing what is sent (the last attempt's)
  ByteSink* target = nullptr;    // where a 200 answer's body goes (else into `body`)
  // False keeps a request of a replayable method from being sent again
  // after a connection that ended without an answer (a request with
  // conditions); MOVE and other methods are never sent again then.
  bool replayable = true;
};

struct HttpResponse {
  bool failed = false;  // no usable answer: `error` says why
  std::string error;
  bool dropped = false;  // the connection ended before any answer came
  long code = 0;
  std::string reason;
  std::string body;  // the answer's body, unless it went to the target
  // The headers of the final answer, names in lower case, values trimmed.
  std::vector<std::pair<std::string, std::string>> headers;
  time_t date = -1;          // the Date header, seconds since the epoch
  time_t lastModified = -1;  // the Last-Modified header
  long long received = 0;    // bytes written to the target
  int fileError = 0;         // errno of the local file, read or written
  int attempts = 0;          // requests sent, retries included
  long newConnections = 0;   // connections opened for it (0: one was reused)

  // The first value of header `name` (lower case), or "".
  std::string header(const std::string& name) const;
  bool answered(long status) const { return !failed && code == status; }
  bool succeeded() const { return !failed && fileError == 0 && code >= 200 && code <= 299; }
};

class HttpClient {
 public:
  explicit HttpClient(const HttpOptions& options);
  ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  // Sends `request` (again as the retry policy says) and returns the last
  // answer. Credentials never appear in `error`.
  HttpResponse perform(const HttpRequest& request);

 private:
  class Lease;
  // One attempt; `fresh` asks for a new connection.
  HttpResponse attempt(const HttpRequest& request, bool fresh);

  HttpOptions options_;
  std::mutex poolMutex_;
  std::vector<void*> idle_;  // CURL handles, each with its live connection
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_STORES_HTTP_CLIENT_H_
