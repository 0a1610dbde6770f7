#include "stores/s3_transport.h"

#include <curl/curl.h>
#include <errno.h>
#include <openssl/evp.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "server/agent_log.h"

namespace velagent {

namespace {

constexpr long kConnectSeconds = 15;
// A transfer that moves less than a byte a second for this long is given
// up: a service that stalls must not hold an agent thread for ever.
constexpr long kStallSeconds = 60;
// Most bytes of an answer read into memory (a listing page is far less).
constexpr size_t kMaxAnswerBytes = 64u << 20;
const char kEmptySha256[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

std::string hexOf(const unsigned char* bytes, unsigned size) {
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned i = 0; i < size; ++i) {
    out += kHex[bytes[i] >> 4];
    out += kHex[bytes[i] & 15];
  }
  return out;
}

std::string trimmed(const std::string& text) {
  size_t begin = text.find_first_not_of(" \t\r\n");
  size_t end = text.find_last_not_of(" \t\r\n");
  return begin == std::string::npos ? "" : text.substr(begin, end - begin + 1);
}

struct Md5Context {
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  Md5Context() { EVP_DigestInit_ex(ctx, EVP_md5(), nullptr); }
  ~Md5Context() { EVP_MD_CTX_free(ctx); }
  Md5Context(const Md5Context&) = delete;
  Md5Context& operator=(const Md5Context&) = delete;
  std::string hex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    EVP_DigestFinal_ex(ctx, digest, &size);
    return hexOf(digest, size);
  }
};

// What the callbacks of one request share, across its attempts.
struct Transfer {
  const S3Transport::Request* request;
  S3Transport::Response* response;
  long long sent = 0;  // bytes of the streamed body given to libcurl in this attempt
  long long md5UpTo = 0;
  Md5Context* md5 = nullptr;
  long code = 0;
  std::string reason;
};

size_t onHeader(char* data, size_t size, size_t count, void* user) {
  Transfer& t = *static_cast<Transfer*>(user);
  S3Transport::Response& r = *t.response;
  const size_t n = size * count;
  std::string line(data, n);
  if (line.compare(0, 5, "HTTP/") == 0) {
    // Every answer starts again (a "100 Continue" comes before the real one).
    size_t space = line.find(' ');
    t.code = space == std::string::npos ? 0 : std::atol(line.c_str() + space + 1);
    size_t reason = space == std::string::npos ? space : line.find(' ', space + 1);
    t.reason = reason == std::string::npos ? "" : trimmed(line.substr(reason + 1));
    r.etag.clear();
    r.lastModified = -1;
    r.length = -1;
    r.meta.clear();
    return n;
  }
  size_t colon = line.find(':');
  if (colon == std::string::npos) {
    return n;
  }
  std::string name = line.substr(0, colon);
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  std::string value = trimmed(line.substr(colon + 1));
  if (name == "etag") {
    r.etag = bareEtag(value);
  } else if (name == "last-modified") {
    time_t when = curl_getdate(value.c_str(), nullptr);
    r.lastModified = when >= 0 ? when : -1;
  } else if (name == "content-length") {
    r.length = std::atoll(value.c_str());
  } else if (name.compare(0, 11, "x-amz-meta-") == 0) {
    r.meta[name.substr(11)] = value;
  }
  return n;
}

size_t onBody(char* data, size_t size, size_t count, void* user) {
  Transfer& t = *static_cast<Transfer*>(user);
  S3Transport::Response& r = *t.response;
  size_t n = size * count;
  if (t.request->target != nullptr && (t.code == 200 || t.code == 206)) {
    int err = t.request->target->write(data, n);
    if (err != 0) {
      r.fileError = err;
      return 0;  // stops the transfer
    }
    r.received += static_cast<long long>(n);
    return n;
  }
  if (r.body.size() + n > kMaxAnswerBytes) {
    return 0;
  }
  r.body.append(data, n);
  return n;
}

size_t onRead(char* buffer, size_t size, size_t count, void* user) {
  Transfer& t = *static_cast<Transfer*>(user);
  const S3Transport::Request& q = *t.request;
  size_t want = static_cast<size_t>(
      std::min<long long>(static_cast<long long>(size * count), q.length - t.sent));
  if (want == 0) {
    return 0;
  }
  ssize_t n;
  do {
    n = ::pread(q.source, buffer, want, static_cast<off_t>(q.offset + t.sent));
  } while (n < 0 && errno == EINTR);
  if (n <= 0) {
    // A file that shrank under the copy is no whole copy either.
    t.response->fileError = n < 0 ? errno : EIO;
    return CURL_READFUNC_ABORT;
  }
  const long long at = q.offset + t.sent;
  if (q.sourceHash != nullptr && q.hashedUpTo != nullptr && at + n > *q.hashedUpTo &&
      at <= *q.hashedUpTo) {
    const long long skip = *q.hashedUpTo - at;
    q.sourceHash->update(buffer + skip, static_cast<size_t>(n - skip));
    *q.hashedUpTo = at + n;
  }
  if (t.md5 != nullptr && t.sent + n > t.md5UpTo && t.sent <= t.md5UpTo) {
    const long long skip = t.md5UpTo - t.sent;
    EVP_DigestUpdate(t.md5->ctx, buffer + skip, static_cast<size_t>(n - skip));
    t.md5UpTo = t.sent + n;
  }
  t.sent += n;
  return static_cast<size_t>(n);
}

// libcurl rewinds a body to send it again on a fresh connection when a
// kept-alive one turns out to be closed.
int onSeek(void* user, curl_off_t offset, int origin) {
  Transfer& t = *static_cast<Transfer*>(user);
  if (origin != SEEK_SET || offset < 0 || offset > t.request->length) {
    return CURL_SEEKFUNC_CANTSEEK;
  }
  t.sent = offset;
  return CURL_SEEKFUNC_OK;
}

bool transient(const S3Transport::Response& r) {
  if (r.fileError != 0) {
    return false;
  }
  if (r.failed) {
    switch (r.curlCode) {
      case CURLE_COULDNT_CONNECT:
      case CURLE_SEND_ERROR:
      case CURLE_RECV_ERROR:
      case CURLE_GOT_NOTHING:
      case CURLE_PARTIAL_FILE:
      case CURLE_SEND_FAIL_REWIND:
        return true;
      default:
        return false;
    }
  }
  return r.code == 500 || r.code == 502 || r.code == 503 || r.code == 504 ||
         (r.code == 400 && r.errorCode() == "RequestTimeout");
}

}  // namespace

std::string sha256Hex(const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  EVP_Digest(data.data(), data.size(), digest, &size, EVP_sha256(), nullptr);
  return hexOf(digest, size);
}

std::string md5Base64(const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  EVP_Digest(data.data(), data.size(), digest, &size, EVP_md5(), nullptr);
  unsigned char text[64];
  int length = EVP_EncodeBlock(text, digest, static_cast<int>(size));
  return std::string(reinterpret_cast<char*>(text), static_cast<size_t>(length));
}

std::string multipartEtag(const std::vector<std::string>& partEtags) {
  std::string digests;
  for (const std::string& etag : partEtags) {
    if (!isContentEtag(etag)) {
      return "";
    }
    for (size_t i = 0; i < etag.size(); i += 2) {
      digests += static_cast<char>(std::stoi(etag.substr(i, 2), nullptr, 16));
    }
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  EVP_Digest(digests.data(), digests.size(), digest, &size, EVP_md5(), nullptr);
  return hexOf(digest, size) + "-" + std::to_string(partEtags.size());
}

std::string S3Transport::Response::errorCode() const {
  S3Error parsed;
  return parseS3Error(body, parsed) ? parsed.code : "";
}

std::string S3Transport::Response::describe() const {
  if (failed) {
    return "s3: " + error;
  }
  std::string s3Code = errorCode();
  return "s3: " + std::to_string(code) + (s3Code.empty() ? "" : " " + s3Code);
}

// Borrows a handle from the pool and gives it back: its connection to the
// service stays open for the next request of any thread.
class S3Transport::Lease {
 public:
  explicit Lease(S3Transport& transport) : transport_(transport) {
    {
      std::lock_guard<std::mutex> lock(transport_.poolMutex_);
      if (!transport_.idle_.empty()) {
        curl_ = transport_.idle_.back();
        transport_.idle_.pop_back();
      }
    }
    if (curl_ == nullptr) {
      curl_ = curl_easy_init();
    }
  }
  ~Lease() {
    if (curl_ != nullptr) {
      std::lock_guard<std::mutex> lock(transport_.poolMutex_);
      transport_.idle_.push_back(curl_);
    }
  }
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  void* get() const { return curl_; }

 private:
  S3Transport& transport_;
  void* curl_ = nullptr;
};

S3Transport::S3Transport(const S3TransportOptions& options) : options_(options) {
  signing_ = "aws:amz:" +
             (options_.credentials.region.empty() ? "us-east-1" : options_.credentials.region) +
             ":s3";
  options_.attempts = std::max(1, options_.attempts);
}

S3Transport::~S3Transport() {
  for (void* curl : idle_) {
    curl_easy_cleanup(static_cast<CURL*>(curl));
  }
}

S3Transport::Response S3Transport::perform(const Request& request) {
  Lease lease(*this);
  Response response;
  if (lease.get() == nullptr) {
    response.failed = true;
    response.error = "cannot start a transfer";
    return response;
  }
  std::unique_ptr<Md5Context> md5(request.md5 ? new Md5Context : nullptr);
  Transfer transfer{&request, &response, 0, 0, md5.get(), 0, ""};
  long backoff = options_.firstBackoffMs;
  for (int attempt = 1;; ++attempt) {
    response = Response();
    transfer.sent = 0;
    transfer.code = 0;
    transfer.reason.clear();
    CURL* curl = static_cast<CURL*>(lease.get());
    char errorText[CURL_ERROR_SIZE] = "";
    curl_easy_reset(curl);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);

    std::string query = s3Query(request.query);
    std::string url = s3Url(options_.location, request.key, query);
    struct curl_slist* headers = nullptr;
    for (const std::string& header : request.headers) {
      headers = curl_slist_append(headers, header.c_str());
    }
    std::string payload = request.source >= 0 ? "UNSIGNED-PAYLOAD"
                          : request.hasBody   ? sha256Hex(request.body)
                                              : kEmptySha256;
    headers = curl_slist_append(headers, ("x-amz-content-sha256: " + payload).c_str());
    if (!options_.credentials.sessionToken.empty()) {
      headers = curl_slist_append(
          headers, ("x-amz-security-token: " + options_.credentials.sessionToken).c_str());
    }
    std::unique_ptr<struct curl_slist, void (*)(struct curl_slist*)> headerGuard(
        headers, curl_slist_free_all);

    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, kStallSeconds);
    curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(curl, CURLOPT_AWS_SIGV4, signing_.c_str());
    curl_easy_setopt(curl, CURLOPT_USERNAME, options_.credentials.accessKey.c_str());
    curl_easy_setopt(curl, CURLOPT_PASSWORD, options_.credentials.secretKey.c_str());
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
      curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, onSeek);
      curl_easy_setopt(curl, CURLOPT_SEEKDATA, &transfer);
      curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(request.length));
    } else if (request.hasBody) {
      curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
      curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE,
                       static_cast<curl_off_t>(request.body.size()));
    }
    if (std::strcmp(request.method, "HEAD") == 0) {
      curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    } else if (std::strcmp(request.method, "GET") != 0 &&
               !(std::strcmp(request.method, "PUT") == 0 && request.source >= 0)) {
      curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method);
    }

    CURLcode result = curl_easy_perform(curl);
    long code = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
    response.code = code != 0 ? code : transfer.code;
    response.attempts = attempt;
    if (result != CURLE_OK) {
      response.failed = true;
      response.curlCode = static_cast<int>(result);
      response.error = errorText[0] != '\0' ? errorText : curl_easy_strerror(result);
    }
    // Nothing of this request may stay in the pooled handle.
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, nullptr);

    if (attempt >= options_.attempts || !transient(response) || response.received > 0) {
      break;
    }
    logLine(response.describe() + " for " + request.method + " " +
            (request.key.empty() ? "the bucket" : request.key) + "; sent again in " +
            std::to_string(backoff) + " ms");
    std::this_thread::sleep_for(std::chrono::milliseconds(backoff));
    backoff *= 2;
  }
  if (md5 && transfer.md5UpTo == request.length) {
    response.md5 = md5->hex();
  }
  return response;
}

}  // namespace velagent
