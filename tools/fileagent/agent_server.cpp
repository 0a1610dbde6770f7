#include "agent_server.h"

#include <errno.h>
#include <hiredis/hiredis.h>
#include <hiredis/read.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>

namespace velagent {

namespace {

// Requests are small; a client that sends more than this without a whole
// request is cut off.
constexpr size_t kMaxPending = 64u * 1024u * 1024u;
constexpr int kMaxArrayElements = 1 << 20;

// The reader's own object functions, with a limit on array sizes so that a
// bogus length in a request cannot ask for a huge allocation.
redisReplyObjectFunctions gGuardedFunctions;
void* (*gCreateArray)(const redisReadTask*, int) = nullptr;

void* guardedCreateArray(const redisReadTask* task, int elements) {
  if (elements < 0 || elements > kMaxArrayElements) {
    return nullptr;
  }
  return gCreateArray(task, elements);
}

struct ReaderDeleter {
  void operator()(redisReader* reader) const { redisReaderFree(reader); }
};
struct ReplyDeleter {
  void operator()(void* reply) const { freeReplyObject(reply); }
};

std::unique_ptr<redisReader, ReaderDeleter> makeReader() {
  std::unique_ptr<redisReader, ReaderDeleter> reader(redisReaderCreate());
  if (!reader || reader->fn == nullptr) {
    return reader;
  }
  static std::once_flag once;
  redisReplyObjectFunctions* defaults = reader->fn;
  std::call_once(once, [defaults] {
    gGuardedFunctions = *defaults;
    gCreateArray = defaults->createArray;
    gGuardedFunctions.createArray = guardedCreateArray;
  });
  reader->fn = &gGuardedFunctions;
  return reader;
}

bool sendAll(int fd, const std::string& data) {
  size_t sent = 0;
  while (sent < data.size()) {
    ssize_t n = ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    sent += static_cast<size_t>(n);
  }
  return true;
}

// The arguments of a request: an array of bulk strings. False otherwise.
bool argumentsOf(const redisReply* reply, std::vector<std::string>& args) {
  if (reply->type != REDIS_REPLY_ARRAY || reply->elements == 0) {
    return false;
  }
  for (size_t i = 0; i < reply->elements; ++i) {
    const redisReply* item = reply->element[i];
    if (item == nullptr || item->type != REDIS_REPLY_STRING) {
      return false;
    }
    args.emplace_back(item->str, item->len);
  }
  return true;
}

int makeParents(const std::string& path) {
  for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1)) {
    std::string dir = path.substr(0, pos);
    if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
      return errno;
    }
  }
  return 0;
}

}  // namespace

Server::~Server() {
  shutdownAll();
  if (listenFd_ >= 0) {
    ::close(listenFd_);
    ::unlink(socketPath_.c_str());
  }
}

bool Server::listenOn(const std::string& socketPath) {
  struct sockaddr_un addr;
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (socketPath.empty() || socketPath.size() >= sizeof addr.sun_path) {
    std::fprintf(stderr, "velfileagent: socket path too long or empty: %s\n", socketPath.c_str());
    return false;
  }
  std::memcpy(addr.sun_path, socketPath.c_str(), socketPath.size() + 1);
  int err = makeParents(socketPath);
  if (err != 0) {
    std::fprintf(stderr, "velfileagent: cannot create the folder of %s: %s\n", socketPath.c_str(),
                 std::strerror(err));
    return false;
  }
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    std::perror("velfileagent: socket");
    return false;
  }
  struct stat st;
  if (::lstat(socketPath.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
    // A socket left behind by an agent that is gone is replaced; a live one is not.
    if (::connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0) {
      std::fprintf(stderr, "velfileagent: another agent listens on %s\n", socketPath.c_str());
      ::close(fd);
      return false;
    }
    ::close(fd);
    ::unlink(socketPath.c_str());
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      std::perror("velfileagent: socket");
      return false;
    }
  }
  if (::bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(fd, 128) != 0) {
    std::fprintf(stderr, "velfileagent: cannot listen on %s: %s\n", socketPath.c_str(),
                 std::strerror(errno));
    ::close(fd);
    return false;
  }
  listenFd_ = fd;
  socketPath_ = socketPath;
  return true;
}

void Server::run(int stopFd) {
  for (;;) {
    struct pollfd fds[2] = {{listenFd_, POLLIN, 0}, {stopFd, POLLIN, 0}};
    int n = ::poll(fds, 2, 1000);
    if (n < 0 && errno != EINTR) {
      std::perror("velfileagent: poll");
      break;
    }
    reap(false);
    if (n <= 0) {
      continue;
    }
    if (fds[1].revents != 0) {
      break;
    }
    if ((fds[0].revents & POLLIN) != 0) {
      int client = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) {
        if (errno == EMFILE || errno == ENFILE) {
          std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        continue;
      }
      auto session = std::make_unique<Session>();
      session->fd = client;
      Session* raw = session.get();
      try {
        session->thread = std::thread(&Server::serve, this, raw);
      } catch (const std::exception&) {
        ::close(client);
        continue;
      }
      sessions_.push_back(std::move(session));
    }
  }
  ::close(listenFd_);
  listenFd_ = -1;
  ::unlink(socketPath_.c_str());
  shutdownAll();
}

void Server::shutdownAll() {
  {
    std::lock_guard<std::mutex> lock(stopMutex_);
    stopping_ = true;
  }
  stopCv_.notify_all();
  for (auto& session : sessions_) {
    ::shutdown(session->fd, SHUT_RDWR);
  }
  reap(true);
}

void Server::reap(bool all) {
  for (auto it = sessions_.begin(); it != sessions_.end();) {
    if (all || (*it)->done.load()) {
      if ((*it)->thread.joinable()) {
        (*it)->thread.join();
      }
      ::close((*it)->fd);
      it = sessions_.erase(it);
    } else {
      ++it;
    }
  }
}

void Server::serve(Session* session) {
  try {
    auto reader = makeReader();
    if (!reader) {
      sendAll(session->fd, "-ERR out of memory\r\n");
      session->done = true;
      return;
    }
    char buffer[16384];
    bool open = true;
    while (open) {
      ssize_t n = ::recv(session->fd, buffer, sizeof buffer, 0);
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n <= 0) {
        break;
      }
      if (redisReaderFeed(reader.get(), buffer, static_cast<size_t>(n)) != REDIS_OK ||
          reader->len - reader->pos > kMaxPending) {
        sendAll(session->fd, "-ERR Protocol error: request too large\r\n");
        break;
      }
      while (open) {
        void* raw = nullptr;
        if (redisReaderGetReply(reader.get(), &raw) != REDIS_OK) {
          sendAll(session->fd, std::string("-ERR ") + reader->errstr + "\r\n");
          open = false;
          break;
        }
        if (raw == nullptr) {
          break;
        }
        std::unique_ptr<void, ReplyDeleter> request(raw);
        std::vector<std::string> args;
        if (!argumentsOf(static_cast<redisReply*>(raw), args)) {
          sendAll(session->fd, "-ERR Protocol error: expected an array of bulk strings\r\n");
          open = false;
          break;
        }
        request.reset();
        open = answer(session->fd, args);
      }
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "velfileagent: connection dropped: %s\n", e.what());
  }
  // The client sees the end at once; the descriptor itself is closed when
  // the main thread reaps this session.
  ::shutdown(session->fd, SHUT_RDWR);
  session->done = true;
}

bool Server::answer(int fd, const std::vector<std::string>& args) {
  journal_.record(args);
  Rule rule;
  Reply reply;
  bool ruled = rules_.find(args, rule);
  if (ruled && rule.delayMs > 0) {
    std::unique_lock<std::mutex> lock(stopMutex_);
    if (stopCv_.wait_for(lock, std::chrono::milliseconds(rule.delayMs),
                         [this] { return stopping_; })) {
      return false;
    }
  }
  if (ruled && rule.hasReply) {
    reply = rule.reply;
  } else {
    reply = service_.execute(args);
  }
  if (reply.kind == Reply::Kind::kClose) {
    return false;
  }
  std::string bytes = encode(reply);
  if (!ruled || rule.trickleMs <= 0) {
    return sendAll(fd, bytes);
  }
  // One byte at a time, so that a client's time-out can be tested against
  // a reply that keeps arriving.
  for (char byte : bytes) {
    std::unique_lock<std::mutex> lock(stopMutex_);
    if (stopCv_.wait_for(lock, std::chrono::milliseconds(rule.trickleMs),
                         [this] { return stopping_; })) {
      return false;
    }
    lock.unlock();
    if (!sendAll(fd, std::string(1, byte))) {
      return false;
    }
  }
  return true;
}

}  // namespace velagent
