#include "support/agent_fixture.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>

#include "support/process.h"

#include <sqlite3.h>

namespace veltest {

namespace {

constexpr int kStartSeconds = 30;
constexpr int kStopSeconds = 15;

// The RESP bytes of a request.
std::string encodeRequest(const std::vector<std::string>& args) {
  std::string out = "*" + std::to_string(args.size()) + "\r\n";
  for (const std::string& arg : args) {
    out += "$" + std::to_string(arg.size()) + "\r\n" + arg + "\r\n";
  }
  return out;
}

}  // namespace

AgentFixture::AgentFixture(const std::string& rulesJson)
    : AgentFixture(AgentOptions{rulesJson, {}, -1, false, false, {}, nullptr, false, "", false}) {}

AgentFixture::AgentFixture(const AgentOptions& options) : options_(options) {
  store_ = options_.sharedWith != nullptr ? options_.sharedWith->store() : dir_.sub("store");
  makeDirs(store());
  makeDirs(mirror());
  makeDirs(udsRoot());
  makeDirs(logDir());
  writeFile(rulesPath(), options_.rules);
  if (options_.sharedWith != nullptr) {
    sharedServer_ = options_.sharedWith->server();
    options_.webdav = false;
    options_.server = options_.sharedWith->options_.server;
    if (!options_.sharedWith->s3Url().empty()) {
      options_.s3 = true;
      options_.s3Url = options_.sharedWith->s3Url();
      options_.s3Https = options_.sharedWith->options_.s3Https;
    }
  }
  if (options_.webdav) {
    server_.reset(new WebDavServer(store(), dir_.sub("httpd"), options_.server));
    if (!server_->ready()) {
      ADD_FAILURE() << "the WebDAV server did not start: " << server_->error();
      return;
    }
    if (!options_.server.user.empty()) {
      writeFile(dir_.sub("password"), options_.server.password + "\n");
    }
  }
  if (options_.s3) {
    std::string why;
    bool unavailable = false;
    s3Service_ = sharedS3Service(why, unavailable);
    if (s3Service_ == nullptr) {
      ADD_FAILURE() << "no S3 service: " << why;
      return;
    }
    std::string prefix;
    if (options_.s3Url.empty()) {
      prefix = s3Service_->freshPrefix();
      ownPrefix_ = true;
      s3Url_ = s3Service_->url(prefix, options_.s3Https);
    } else {
      s3Url_ = options_.s3Url;
      const std::string base = s3Service_->url("", options_.s3Https);
      prefix = s3Url_.compare(0, base.size(), base) == 0 ? s3Url_.substr(base.size()) : "";
      if (!prefix.empty() && prefix.back() != '/') {
        prefix += '/';
      }
    }
    s3_.reset(new S3Client(*s3Service_, prefix));
  }
  ready_ = start();
  if (!ready_) {
    ADD_FAILURE() << "the file agent " << VEL_AGENT_BIN << " did not start";
  }
}

AgentFixture::~AgentFixture() {
  stop();
  server_.reset();
  if (s3_ && ownPrefix_) {
    // The cluster keeps its objects in memory: each test takes its own away.
    for (const std::string& key : s3_->keys()) {
      s3_->remove(key);
    }
  }
}

std::string AgentFixture::root() const { return dir_.path(); }
std::string AgentFixture::store() const { return store_; }
std::string AgentFixture::mirror() const { return dir_.sub("mirror"); }
std::string AgentFixture::udsRoot() const { return dir_.sub("uds"); }
std::string AgentFixture::socketPath() const {
  return udsRoot() + "/velfileagent/velfileagent.sock";
}
std::string AgentFixture::logDir() const { return dir_.sub("log"); }
std::string AgentFixture::journalPath() const { return dir_.sub("journal.jsonl"); }
std::string AgentFixture::rulesPath() const { return dir_.sub("rules.json"); }
std::string AgentFixture::stateDir() const { return dir_.sub("state"); }

void AgentFixture::forgetRecord() const {
  for (const std::string& file : matching(stateDir() + "/sync-*.db")) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
      sqlite3_busy_timeout(db, 5000);
      EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, "DELETE FROM files", nullptr, nullptr, nullptr))
          << sqlite3_errmsg(db);
    }
    sqlite3_close_v2(db);
  }
}
std::string AgentFixture::agentLogPath() const { return dir_.sub("agent.log"); }
std::string AgentFixture::agentLog() const { return readFile(agentLogPath()); }

bool AgentFixture::start() {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    return false;
  }
  std::vector<std::string> args = {VEL_AGENT_BIN, "--mirror",  mirror(),      "--socket",
                                   socketPath(),  "--journal", journalPath(), "--rules",
                                   rulesPath(),   "--state",   stateDir()};
  if (WebDavServer* dav = server()) {
    args.insert(args.end(), {"--webdav", dav->url()});
    if (!options_.server.user.empty()) {
      writeFile(dir_.sub("password"), options_.server.password + "\n");
      args.insert(args.end(), {"--webdav-user", options_.server.user, "--webdav-password-file",
                               dir_.sub("password")});
    }
    if (options_.server.https) {
      args.insert(args.end(), {"--ca-file", dav->certificate()});
    }
  } else if (s3Service_ != nullptr) {
    args.insert(args.end(), {"--s3", s3Url_});
    if (options_.s3Https) {
      args.insert(args.end(), {"--ca-file", s3Service_->caFile});
    }
  } else {
    args.insert(args.end(), {"--store", store()});
  }
  args.insert(args.end(), options_.args.begin(), options_.args.end());
  SpawnOptions spawning;
  if (s3Service_ != nullptr) {
    spawning.env = s3Service_->env();
  }
  spawning.out = fds[1];
  spawning.endWithParent = true;  // an agent must not outlive a test process that aborts
  if (options_.captureLog) {
    spawning.err = ::open(agentLogPath().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  }
  const long long limit = options_.fileSizeLimit;
  if (limit >= 0) {
    spawning.setUp = [limit] {
      // A write past the limit then fails with EFBIG instead of killing it.
      ::signal(SIGXFSZ, SIG_IGN);
      struct rlimit bound = {static_cast<rlim_t>(limit), static_cast<rlim_t>(limit)};
      ::setrlimit(RLIMIT_FSIZE, &bound);
    };
  }
  pid_ = spawn(args, spawning);
  ::close(fds[1]);
  if (spawning.err >= 0) {
    ::close(spawning.err);
  }
  outFd_ = fds[0];
  return pid_ > 0 && waitForText(outFd_, "ready\n", kStartSeconds);
}

void AgentFixture::stop() {
  if (pid_ > 0 && !stopProcess(pid_, kStopSeconds, &exitStatus_)) {
    ADD_FAILURE() << "the file agent did not stop on SIGTERM";
  }
  pid_ = -1;
  kill();  // closes its output
}

void AgentFixture::kill() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    waitExit(pid_);
    exitStatus_ = -1;
  }
  pid_ = -1;
  if (outFd_ >= 0) {
    ::close(outFd_);
    outFd_ = -1;
  }
}

bool AgentFixture::restart() {
  stop();
  ready_ = start();
  return ready_;
}

std::vector<std::vector<std::string>> AgentFixture::journal() const {
  std::vector<std::vector<std::string>> requests;
  std::ifstream in(journalPath());
  std::string line;
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  while (std::getline(in, line)) {
    if (line.empty()) {
      continue;
    }
    Json::Value value;
    std::string error;
    std::vector<std::string> args;
    if (reader->parse(line.data(), line.data() + line.size(), &value, &error) && value.isArray()) {
      for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
        args.push_back(value[i].isString() ? value[i].asString() : value[i].toStyledString());
      }
    } else {
      ADD_FAILURE() << "journal line is not a JSON list: " << line;
    }
    requests.push_back(args);
  }
  return requests;
}

std::vector<std::string> AgentFixture::requests() const {
  std::vector<std::string> joined;
  for (const std::vector<std::string>& request : journal()) {
    std::string line;
    for (const std::string& arg : request) {
      line += (line.empty() ? "" : " ") + arg;
    }
    joined.push_back(line);
  }
  return joined;
}

void AgentFixture::clearJournal() {
  // The agent appends, so cutting the file makes its next line the first.
  if (::truncate(journalPath().c_str(), 0) != 0) {
    writeFile(journalPath(), "");
  }
}

void AgentFixture::setRules(const std::string& rulesJson) {
  // A new file renamed into place: the agent sees another inode and reloads
  // even when size and time happen to match the old one.
  std::string fresh = rulesPath() + ".new";
  writeFile(fresh, rulesJson);
  std::rename(fresh.c_str(), rulesPath().c_str());
}

void AgentFixture::storeFile(const std::string& rel, const std::string& content) const {
  if (s3_) {
    s3_->putFile(rel, content, 0);
    return;
  }
  const std::string path = store() + "/" + rel;
  makeDirs(path.substr(0, path.rfind('/')));
  writeFile(path, content);
  if (server()) {
    server()->adopt();
  }
}

void AgentFixture::exportEnv() const {
  ::setenv("UDS_ROOT_OSSUSER", udsRoot().c_str(), 1);
  ::setenv("TARN_ROOT_DIR", mirror().c_str(), 1);
  ::setenv("_APP_LOG_DIR", logDir().c_str(), 1);
}

AgentConnection::AgentConnection(const std::string& socketPath) : reader_(redisReaderCreate()) {
  struct sockaddr_un addr;
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, socketPath.c_str(), sizeof addr.sun_path - 1);
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ >= 0 && ::connect(fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
    close();
  }
}

AgentConnection::~AgentConnection() {
  close();
  redisReaderFree(reader_);
}

void AgentConnection::close() {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

bool AgentConnection::sendRaw(const std::string& bytes) {
  size_t sent = 0;
  while (fd_ >= 0 && sent < bytes.size()) {
    ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    sent += static_cast<size_t>(n);
  }
  return fd_ >= 0;
}

bool AgentConnection::send(const std::vector<std::string>& args) {
  return sendRaw(encodeRequest(args));
}

long AgentConnection::receive(char* chunk, size_t size,
                              std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    const long long left = std::max(0LL, millisLeft(deadline));
    struct pollfd pfd = {fd_, POLLIN, 0};
    const int ready = fd_ >= 0 ? ::poll(&pfd, 1, static_cast<int>(left)) : 0;
    if (ready < 0 && errno == EINTR) {
      continue;
    }
    const ssize_t n = ready > 0 ? ::recv(fd_, chunk, size, 0) : -1;
    return n < 0 && errno == ECONNRESET ? 0 : static_cast<long>(n);
  }
}

namespace {

// A reply in the form AgentConnection::reply() gives.
std::string describe(const redisReply* reply) {
  switch (reply->type) {
    case REDIS_REPLY_STATUS:
      return "+" + std::string(reply->str, reply->len);
    case REDIS_REPLY_ERROR:
      return "-" + std::string(reply->str, reply->len);
    case REDIS_REPLY_STRING:
      return "$" + std::string(reply->str, reply->len);
    case REDIS_REPLY_INTEGER:
      return ":" + std::to_string(reply->integer);
    case REDIS_REPLY_ARRAY: {
      std::string out = "*";
      for (size_t i = 0; i < reply->elements; ++i) {
        out += "\n" + describe(reply->element[i]).substr(1);
      }
      return out;
    }
    default:
      return "$nil";
  }
}

}  // namespace

std::string AgentConnection::reply(int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  char chunk[1 << 16];
  for (;;) {
    void* raw = nullptr;
    if (redisReaderGetReply(reader_, &raw) != REDIS_OK) {
      return "";
    }
    if (raw != nullptr) {
      const std::string out = describe(static_cast<redisReply*>(raw));
      freeReplyObject(raw);
      return out;
    }
    const long n = receive(chunk, sizeof chunk, deadline);
    if (n <= 0 || redisReaderFeed(reader_, chunk, static_cast<size_t>(n)) != REDIS_OK) {
      return "";
    }
  }
}

std::string AgentConnection::ask(const std::vector<std::string>& args, int timeoutMs) {
  return send(args) ? reply(timeoutMs) : "";
}

std::string AgentConnection::rawUntilClosed(int timeoutMs, bool& closed) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  std::string out;
  char chunk[4096];
  long n;
  while ((n = receive(chunk, sizeof chunk, deadline)) > 0) {
    out.append(chunk, static_cast<size_t>(n));
  }
  closed = n == 0;
  return out;
}

bool AgentConnection::waitReadable(int timeoutMs) {
  struct pollfd pfd = {fd_, POLLIN, 0};
  int ready;
  while ((ready = ::poll(&pfd, 1, timeoutMs)) < 0 && errno == EINTR) {
  }
  return ready > 0;
}

bool AgentConnection::closedByPeer(int timeoutMs) {
  bool closed = false;
  rawUntilClosed(timeoutMs, closed);
  return closed;
}

}  // namespace veltest
