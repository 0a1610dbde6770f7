#include "stores/http_client.h"

#include <curl/curl.h>
#include <errno.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

namespace velagent {

namespace {

// Most bytes of an answer read into memory (a listing's multistatus).
constexpr size_t kMaxAnswerBytes = 256u << 20;
// Repeats of a request answered with 503.
constexpr int kBusyRetries = 2;

const char* const kReplayable[] = {"GET",       "HEAD", "OPTIONS", "PROPFIND",
                                   "PROPPATCH", "PUT",  "DELETE",  "MKCOL"};

bool replayableMethod(const std::string& method) {
  for (const char* name : kReplayable) {
    if (method == name) {
      return true;
    }
  }
  return false;
}

std::string trim(const std::string& text) {
  size_t from = text.find_first_not_of(" \t\r\n");
  size_t to = text.find_last_not_of(" \t\r\n");
  return from == std::string::npos ? "" : text.substr(from, to - from + 1);
}

// What the callbacks of one attempt share.
struct Transfer {
  const HttpRequest* request;
  HttpResponse* response;
  long long sent = 0;
};

size_t onHeader(char* data, size_t size, size_t count, void* user) {
  Transfer& t = *static_cast<Transfer*>(user);
  HttpResponse& r = *t.response;
  std::string line(data, size * count);
  if (line.compare(0, 5, "HTTP/") == 0) {
    // Every answer starts again (a "100 Continue" comes before the real one).
    size_t space = line.find(' ');
    r.code = space == std::string::npos ? 0 : std::atol(line.c_str() + space + 1);
    size_t reason = space == std::string::npos ? space : line.find(' ', space + 1);
    r.reason = reason == std::string::npos ? "" : trim(line.substr(reason + 1));
    r.headers.clear();
    return size * count;
  }
  size_t colon = line.find(':');
  if (colon != std::string::npos && colon > 0) {
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    r.headers.emplace_back(name, trim(line.substr(colon + 1)));
  }
  return size * count;
}

size_t onBody(char* data, size_t size, size_t count, void* user) {
  Transfer& t = *static_cast<Transfer*>(user);
  HttpResponse& r = *t.response;
  size_t n = size * count;
  if (t.request->target != nullptr && r.code == 200) {
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
  const HttpRequest& q = *t.request;
  size_t want = static_cast<size_t>(
      std::min<long long>(static_cast<long long>(size * count), q.sourceSize - t.sent));
  if (want == 0) {
    return 0;
  }
  for (;;) {
    ssize_t n = ::pread(q.source, buffer, want, static_cast<off_t>(t.sent));
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      // A file that shrank under the copy is no whole copy either.
      t.response->fileError = n < 0 ? errno : EIO;
      return CURL_READFUNC_ABORT;
    }
    t.sent += n;
    if (q.sourceHash != nullptr) {
      q.sourceHash->update(buffer, static_cast<size_t>(n));
    }
    return static_cast<size_t>(n);
  }
}

// libcurl rewinds a body it must send again (a connection that died under
// it, a login asked for): back to the start, hash and all.
int onSeek(void* user, curl_off_t offset, int origin) {
  Transfer& t = *static_cast<Transfer*>(user);
  if (origin != SEEK_SET || offset != 0) {
    return CURL_SEEKFUNC_CANTSEEK;
  }
  t.sent = 0;
  if (t.request->sourceHash != nullptr) {
    t.request->sourceHash->reset();
  }
  return CURL_SEEKFUNC_OK;
}

// The pause a 503 answer asks for before attempt `retry` (1, 2...).
std::chrono::milliseconds busyPause(const HttpResponse& r, long basePauseMs, int retry) {
  std::string after = r.header("retry-after");
  long seconds = -1;
  if (!after.empty() && after.find_first_not_of("0123456789") == std::string::npos &&
      after.size() < 9) {
    seconds = std::atol(after.c_str());
  } else if (!after.empty()) {
    time_t when = curl_getdate(after.c_str(), nullptr);
    if (when >= 0) {
      seconds = std::max<long>(0, static_cast<long>(when - ::time(nullptr)));
    }
  }
  if (seconds >= 0) {
    return std::chrono::milliseconds(std::min(seconds, kMostRetryPause) * 1000);
  }
  return std::chrono::milliseconds(basePauseMs * (retry == 1 ? 1 : 4));
}

}  // namespace

// Borrows a handle from the pool and gives it back: its connection to the
// server stays open for the next request of any thread.
class HttpClient::Lease {
 public:
  explicit Lease(HttpClient& client) : client_(client) {
    {
      std::lock_guard<std::mutex> lock(client_.poolMutex_);
      if (!client_.idle_.empty()) {
        curl_ = client_.idle_.back();
        client_.idle_.pop_back();
      }
    }
    if (curl_ == nullptr) {
      curl_ = curl_easy_init();
    }
  }
  ~Lease() {
    if (curl_ != nullptr) {
      std::lock_guard<std::mutex> lock(client_.poolMutex_);
      client_.idle_.push_back(curl_);
    }
  }
  Lease(const Lease&) = delete;
  Lease& operator=(const Lease&) = delete;

  CURL* get() const { return static_cast<CURL*>(curl_); }

 private:
  HttpClient& client_;
  void* curl_ = nullptr;
};

std::string HttpResponse::header(const std::string& name) const {
  for (const auto& entry : headers) {
    if (entry.first == name) {
      return entry.second;
    }
  }
  return "";
}

HttpClient::HttpClient(const HttpOptions& options) : options_(options) {}

HttpClient::~HttpClient() {
  for (void* curl : idle_) {
    curl_easy_cleanup(static_cast<CURL*>(curl));
  }
}

HttpResponse HttpClient::perform(const HttpRequest& request) {
  const bool replayable = request.replayable && replayableMethod(request.method);
  int attempts = 0;
  int busy = 0;
  bool fresh = false;
  for (;;) {
    HttpResponse response = attempt(request, fresh);
    response.attempts = ++attempts;
    const bool untouched = response.received == 0 && response.fileError == 0;
    if (untouched && response.answered(503) && busy < kBusyRetries) {
      ++busy;
      std::this_thread::sleep_for(busyPause(response, options_.retryPauseMs, busy));
      continue;
    }
    // A connection that ended before any answer, once.
    if (untouched && response.dropped && response.code == 0 && replayable && !fresh) {
      fresh = true;
      continue;
    }
    return response;
  }
}

HttpResponse HttpClient::attempt(const HttpRequest& request, bool fresh) {
  HttpResponse response;
  Lease lease(*this);
  CURL* curl = lease.get();
  if (curl == nullptr) {
    response.failed = true;
    response.error = "cannot start a transfer";
    return response;
  }
  curl_easy_reset(curl);
  if (request.sourceHash != nullptr) {
    request.sourceHash->reset();
  }
  Transfer transfer{&request, &response};
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
  // HTTP/1.1 even where TLS could agree on HTTP/2: libcurl 7.88 loses a
  // refusal that an HTTP/2 server sends with the end of the connection
  // before it has read the request's body (lighttpd's 401).
  curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, options_.connectSeconds);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, options_.stallSeconds);
  curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
  if (fresh) {
    curl_easy_setopt(curl, CURLOPT_FRESH_CONNECT, 1L);
  }
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
    curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, onSeek);
    curl_easy_setopt(curl, CURLOPT_SEEKDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(request.sourceSize));
  } else if (request.hasBody) {
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request.body.size()));
  }
  if (request.method == "HEAD") {
    curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
  } else if (request.method != "GET") {
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }

  CURLcode result = curl_easy_perform(curl);
  if (result != CURLE_OK) {
    response.failed = true;
    response.error = errorText[0] != '\0' ? errorText : curl_easy_strerror(result);
    response.dropped =
        result == CURLE_GOT_NOTHING || result == CURLE_SEND_ERROR || result == CURLE_RECV_ERROR;
  }
  long connects = 0;
  if (curl_easy_getinfo(curl, CURLINFO_NUM_CONNECTS, &connects) == CURLE_OK) {
    response.newConnections = connects;
  }
  std::string date = response.header("date");
  std::string modified = response.header("last-modified");
  response.date = date.empty() ? -1 : curl_getdate(date.c_str(), nullptr);
  response.lastModified = modified.empty() ? -1 : curl_getdate(modified.c_str(), nullptr);
  // Nothing of this request may stay in the pooled handle.
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, nullptr);
  return response;
}

}  // namespace velagent
