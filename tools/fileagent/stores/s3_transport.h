// The HTTP side of the S3 store: signed requests to one bucket over kept-
// alive connections, retried when the service asks for it.
//
// Signing: libcurl's own AWS Signature Version 4 (CURLOPT_AWS_SIGV4). Two of
// its habits shape every request made here: it signs the path and query
// exactly as they are in the URL, so keys and query parameters go out
// encoded and the parameters sorted (s3Query); and it signs the payload
// only through an "x-amz-content-sha256" header, which every request
// carries: the SHA-256 of a body held in memory, "UNSIGNED-PAYLOAD" for a
// file streamed from the mirror (a second read of the file just to sign it
// would double the cost of an upload). Its header sorting puts
// "x-amz-copy-source-if-match" before "x-amz-copy-source" where the service
// puts it after, so no request may carry two signed header names of which
// one begins with the other; and it signs an empty header that only asks
// libcurl to leave a header out ("Expect:") without sending it, so large
// bodies keep libcurl's "Expect: 100-continue".
//
// Retries: a request whose connection failed before an answer (refused,
// reset, dropped mid-body) or that was answered 500, 502, 503 (SlowDown),
// 504 or 400 RequestTimeout is sent again, up to `attempts` times in all,
// after 100, 200, 400... ms (`firstBackoffMs` and its doubles), unless
// part of an answer's body already went
// to the caller's sink. A body streamed from a file is read again from its
// start for each attempt; each byte is hashed once.
//
// Thread safety: perform() may be called from several threads at once. Each
// call borrows a libcurl handle from a pool and gives it back after, so a
// handle, and the connection it keeps alive, serves one request at a time.
// curl_global_init must have run before the first transport is made.
#ifndef VEL_TOOLS_FILEAGENT_STORES_S3_TRANSPORT_H_
#define VEL_TOOLS_FILEAGENT_STORES_S3_TRANSPORT_H_

#include <ctime>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "fs/byte_sink.h"
#include "fs/content_hash.h"
#include "stores/s3_protocol.h"

namespace velagent {

struct S3TransportOptions {
  S3Location location;
  S3Credentials credentials;
  std::string caFile;  // certificates (PEM) to trust for HTTPS besides the system's
  int attempts = 4;    // sends of one request at most, the first included
  long firstBackoffMs = 100;
};

class S3Transport {
 public:
  struct Request {
    const char* method = "GET";  // GET, HEAD, PUT, POST or DELETE
    std::string key;             // whole key, prefix included; "" for the bucket
    std::vector<std::pair<std::string, std::string>> query;
    std::vector<std::string> headers;  // "Name: value"
    // A body held in memory (XML), sent when `hasBody`, even when empty.
    bool hasBody = false;
    std::string body;
    // Or a body streamed from `length` bytes of `source` at `offset`.
    int source = -1;
    long long offset = 0;
    long long length = 0;
    // Hashes each streamed byte once, in file order: the bytes from
    // *hashedUpTo on (file offsets), moving it forward; retries and other
    // requests that send bytes before it hash nothing again.
    Hasher* sourceHash = nullptr;
    long long* hashedUpTo = nullptr;
    // Fills Response::md5 with the MD5 of the streamed body.
    bool md5 = false;
    // The body of a 200 or 206 answer goes here instead of Response::body.
    ByteSink* target = nullptr;
  };

  struct Response {
    bool failed = false;  // no whole answer came: `error` says why
    std::string error;
    int curlCode = 0;
    long code = 0;
    std::string body;
    std::string etag;                         // bare (bareEtag)
    time_t lastModified = -1;                 // from Last-Modified
    long long length = -1;                    // Content-Length
    std::map<std::string, std::string> meta;  // x-amz-meta-<name> by lower-case name
    long long received = 0;                   // bytes written to the target
    int fileError = 0;                        // errno of the mirror file, read or written
    std::string md5;  // hex, with Request::md5, once the whole body was read
    int attempts = 0;

    bool answered(long status) const { return !failed && fileError == 0 && code == status; }
    bool succeeded() const { return !failed && fileError == 0 && code >= 200 && code <= 299; }
    // The service's error code (e.g. "NoSuchKey"), from the body; "" when
    // there is none.
    std::string errorCode() const;
    // "s3: " and the status with the error code, or the transfer error.
    std::string describe() const;
  };

  explicit S3Transport(const S3TransportOptions& options);
  ~S3Transport();
  S3Transport(const S3Transport&) = delete;
  S3Transport& operator=(const S3Transport&) = delete;

  Response perform(const Request& request);
  const S3Location& location() const { return options_.location; }

 private:
  class Lease;
  Response attempt(const Request& request, void* curl);

  S3TransportOptions options_;
  std::string signing_;  // the CURLOPT_AWS_SIGV4 text
  std::mutex poolMutex_;
  std::vector<void*> idle_;  // CURL handles, each with its live connection
};

// Digests of small bodies (OpenSSL): the SHA-256 in hex that signs a body,
// and the MD5 in base64 that Content-MD5 carries.
std::string sha256Hex(const std::string& data);
std::string md5Base64(const std::string& data);
// The ETag S3 services give a multipart upload of parts with these ETags
// (each the MD5 of its part): the MD5 of the parts' MD5s, "-", their
// number. "" when a part's ETag is no MD5.
std::string multipartEtag(const std::vector<std::string>& partEtags);

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_STORES_S3_TRANSPORT_H_
