// The S3 texts the agent's S3 store sends and reads, kept apart from the
// transport so that they can be checked without a server: the store's URL,
// the encoding of keys and query strings that signed requests need, the XML
// answers (listings, errors, multipart uploads, copies, batch removals),
// the user metadata that carries a file's mode and modification time, and
// the credentials file.
//
// Keys: the store's path "a/b" is the key `prefix + "a/b"`; a folder "a" is
// every key that begins with `prefix + "a/"`, and an empty folder is the
// zero-byte marker `prefix + "a/"` itself, the convention of established S3
// tools.
//
// Metadata: "x-amz-meta-mode" holds the mode as an octal number with the
// file type bits ("100644", "40750"), "x-amz-meta-mtime" the modification
// time as decimal seconds since the epoch with an optional fraction
// ("1700000000.123456789"), as other S3 tools write them.
//
// Thread safety: plain functions without shared state.
#ifndef VEL_TOOLS_FILEAGENT_STORES_S3_PROTOCOL_H_
#define VEL_TOOLS_FILEAGENT_STORES_S3_PROTOCOL_H_

#include <ctime>
#include <string>
#include <utility>
#include <vector>

namespace velagent {

// Modes of objects and folders without the mode metadata.
constexpr unsigned kS3DefaultFileMode = 0640;
constexpr unsigned kS3DefaultFolderMode = 0750;

// Where the store's objects are.
struct S3Location {
  std::string scheme;    // "http" or "https"
  std::string endpoint;  // host[:port] of the service
  std::string bucket;
  std::string prefix;  // "" or names ending in "/": the keys of the store begin with it
  // Requests go to "bucket.endpoint/key" (Amazon's own endpoints) instead
  // of "endpoint/bucket/key" (path style, for every other endpoint).
  bool virtualHosted = false;
};

// Reads "http(s)://host[:port]/bucket[/prefix...]". False with `error` for
// anything else: no bucket, a bucket name that S3 refuses (3 to 63 lower-case
// letters, digits, "-" and "."), user information, a query or fragment, or
// "." and ".." names in the prefix.
bool parseS3Url(const std::string& url, S3Location& out, std::string& error);
// "s3:" and the URL of the store's top (endpoint, bucket and prefix).
std::string s3Identity(const S3Location& location);

// `text` with every byte but letters, digits and "-._~" percent-encoded in
// upper-case hex, and "/" too unless `keepSlash`: the encoding a signed
// request's path and query must have.
std::string s3Encode(const std::string& text, bool keepSlash);
// Decodes %XX sequences; false for a broken one.
bool s3Decode(const std::string& text, std::string& out);
// The query of a request: names and values encoded, sorted by name then
// value, joined by "&" ("name=" for an empty value).
std::string s3Query(std::vector<std::pair<std::string, std::string>> parameters);
// The URL of `key` ("" for the bucket itself) with `query` (already made by
// s3Query, may be empty).
std::string s3Url(const S3Location& location, const std::string& key, const std::string& query);

// An error answer: <Error><Code>SlowDown</Code><Message>...</Message></Error>.
struct S3Error {
  std::string code;
  std::string message;
};
// False when `xml` is no error answer.
bool parseS3Error(const std::string& xml, S3Error& out);

struct S3Object {
  std::string key;
  long long size = 0;
  time_t modified = 0;
  std::string etag;  // bare, see bareEtag()
};

// One page of a ListObjectsV2 answer.
struct S3Listing {
  std::vector<S3Object> objects;
  std::vector<std::string> prefixes;  // the common prefixes, each ending in the delimiter
  bool truncated = false;
  std::string nextToken;  // continuation token of the next page
};
bool parseListing(const std::string& xml, S3Listing& out, std::string& error);

// The UploadId of an InitiateMultipartUpload answer.
bool parseUploadId(const std::string& xml, std::string& out, std::string& error);
// The body of CompleteMultipartUpload for parts 1..n with these ETags.
std::string completeBody(const std::vector<std::string>& partEtags);
// The ETag (bare) a CompleteMultipartUpload answer names, possibly empty;
// false when the answer is no such result.
bool parseCompleteResult(const std::string& xml, std::string& etag);
// A multipart upload under way, from a ListMultipartUploads answer.
struct S3Upload {
  std::string key;
  std::string uploadId;
};
bool parseUploads(const std::string& xml, std::vector<S3Upload>& out, std::string& error);

// A CopyObject answer: the ETag of the copy; false with `failure` when the
// answer (even one with status 200) is an error.
bool parseCopyResult(const std::string& xml, std::string& etag, S3Error& failure);

// The body of a quiet DeleteObjects of `keys` (at most 1000).
std::string deleteBody(const std::vector<std::string>& keys);
// The keys a DeleteObjects answer says it could not remove, with why.
bool parseDeleteResult(const std::string& xml, std::vector<std::pair<std::string, S3Error>>& failed,
                       std::string& error);

// "2026-11-25T17:19:44.220Z" (fraction optional) in seconds since the epoch.
bool parseIsoTime(const std::string& text, time_t& out);

// An entity tag without "W/" and quotes: what S3 answers compare, and the
// form a conditional request on Ceph's gateway must carry.
std::string bareEtag(const std::string& etag);
// True for the ETag of a single-part upload (or a copy of one): 32 hex
// digits, the MD5 of the content, which names that content wherever it is
// copied. A multipart upload's ETag ("<hex>-<parts>") depends on how the
// content was cut into parts, and a copy may get another one.
bool isContentEtag(const std::string& bare);

// The mode metadata: octal with the type bits of a file or a folder.
std::string formatMode(unsigned mode, bool folder);
// Its permission bits (& 07777); false for text that is no octal number.
bool parseMode(const std::string& text, unsigned& out);
// The mtime metadata: "seconds.nanoseconds".
std::string formatMtime(time_t seconds, long nanoseconds);
// Its whole seconds; also reads RFC 3339 times ("2024-01-02T03:04:05Z").
bool parseMtime(const std::string& text, time_t& out);

// Credentials of an S3 user.
struct S3Credentials {
  std::string accessKey;
  std::string secretKey;
  std::string sessionToken;  // temporary credentials only
  std::string region;        // empty: "us-east-1"
};
// A credentials file in the shared format of S3 tools: the section
// "[default]" (or lines before any section) with aws_access_key_id,
// aws_secret_access_key, and optionally aws_session_token and region.
// False with `error` (which never quotes a value) when a key is missing.
bool parseCredentials(const std::string& text, S3Credentials& out, std::string& error);

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_STORES_S3_PROTOCOL_H_
