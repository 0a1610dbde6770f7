#include "server/agent_server.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "server/agent_log.h"

namespace velagent {

namespace {

// Bytes read from a connection at a time, and the pieces a streamed reply
// is sent in: what one connection holds besides its request.
constexpr size_t kReadChunk = 64u * 1024u;
constexpr size_t kStreamChunk = 256u * 1024u;

bool sendAll(int fd, const char* data, size_t size) {
  size_t sent = 0;
  while (sent < size) {
    ssize_t n = ::send(fd, data + sent, size - sent, MSG_NOSIGNAL);
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

bool sendAll(int fd, const std::string& data) { return sendAll(fd, data.data(), data.size()); }

int makeParents(const std::string& path) {
  for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1)) {
    std::string dir = path.substr(0, pos);
    if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
      return errno;
    }
  }
  return 0;
}

pid_t peerOf(int fd) {
  struct ucred cred;
  socklen_t size = sizeof cred;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0) {
    return 0;
  }
  return cred.pid;
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
      session->peer = peerOf(client);
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

void Server::refuse(const Session& session, const std::string& what, const std::string& why) {
  logLine("refused " + what + " from pid " + std::to_string(session.peer) + ": " + why);
}

void Server::serve(Session* session) {
  try {
    RequestReader reader(limits_);
    Commands::Client client;
    std::unique_ptr<char[]> buffer(new char[kReadChunk]);
    std::vector<std::string> args;
    std::string error;
    bool open = true;
    while (open) {
      ssize_t n = ::recv(session->fd, buffer.get(), kReadChunk, 0);
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n <= 0) {
        break;
      }
      reader.feed(buffer.get(), static_cast<size_t>(n));
      while (open) {
        RequestReader::Result result = reader.next(args, error);
        if (result == RequestReader::Result::kIncomplete) {
          break;
        }
        if (result == RequestReader::Result::kError) {
          refuse(*session, "a request", error);
          sendAll(session->fd, "-ERR " + error + "\r\n");
          open = false;
          break;
        }
        open = answer(*session, client, args);
        args.clear();
      }
    }
  } catch (const std::exception& e) {
    logLine(std::string("connection dropped: ") + e.what());
  }
  // The client sees the end at once; the descriptor itself is closed when
  // the main thread reaps this session. The handles went with `client`.
  ::shutdown(session->fd, SHUT_RDWR);
  session->done = true;
}

bool Server::answer(Session& session, Commands::Client& client,
                    const std::vector<std::string>& args) {
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
    if (ruled) {
      armFaults(rule.faults);
    }
    reply = commands_.execute(client, args);
    disarmFaults();
  }
  if (reply.refused) {
    refuse(session, describeRequest(args), reply.text);
  }
  if (reply.kind == Reply::Kind::kClose) {
    return false;
  }
  size_t size = encodedSize(reply);
  if (size > limits_.maxUnsentReply) {
    refuse(session, describeRequest(args),
           "its reply of " + std::to_string(size) + " bytes is above the cap of " +
               std::to_string(limits_.maxUnsentReply));
    sendAll(session.fd, std::string("-ERR reply too large\r\n"));
    return false;
  }
  return send(session.fd, reply, ruled ? rule.trickleMs : 0);
}

bool Server::send(int fd, const Reply& reply, long trickleMs) {
  std::string head = encode(reply);
  if (!sendBytes(fd, head.data(), head.size(), trickleMs)) {
    return false;
  }
  if (reply.kind != Reply::Kind::kStream) {
    return true;
  }
  // Only one piece of a large read is in memory at a time: a client that
  // stops reading holds this thread and one piece, never the whole read.
  std::unique_ptr<char[]> piece(new char[kStreamChunk]);
  for (long long left = reply.number; left > 0;) {
    size_t n = static_cast<size_t>(std::min<long long>(left, kStreamChunk));
    if (!reply.source->next(piece.get(), n) || !sendBytes(fd, piece.get(), n, trickleMs)) {
      return false;
    }
    left -= static_cast<long long>(n);
  }
  return sendBytes(fd, "\r\n", 2, trickleMs);
}

bool Server::sendBytes(int fd, const char* data, size_t size, long trickleMs) {
  if (trickleMs <= 0) {
    return sendAll(fd, data, size);
  }
  // One byte at a time, so that a client's time-out can be tested against
  // a reply that keeps arriving.
  for (size_t i = 0; i < size; ++i) {
    std::unique_lock<std::mutex> lock(stopMutex_);
    if (stopCv_.wait_for(lock, std::chrono::milliseconds(trickleMs),
                         [this] { return stopping_; })) {
      return false;
    }
    lock.unlock();
    if (!sendAll(fd, data + i, 1)) {
      return false;
    }
  }
  return true;
}

}  // namespace velagent
