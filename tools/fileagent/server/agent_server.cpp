#include "server/agent_server.h"

#include <errno.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "server/agent_log.h"
#include "server/outgoing.h"

namespace velagent {

namespace {

using Clock = TimerQueue::Clock;

// Bytes read from a connection at a time: one buffer per thread.
constexpr size_t kReadChunk = 64u * 1024u;
// How long accepting pauses when the process is out of descriptors.
constexpr auto kAcceptPause = std::chrono::milliseconds(100);
// A connection answered with its last error (a limit, a protocol error)
// stops sending and waits for its client to close, so that the client
// reads the error instead of failing to send: until it closes, up to this
// much more of its input, or this long.
constexpr size_t kLingerBytes = 64u * 1024u;
constexpr long kLingerMs = 1000;
// Connections refused at the limit that may wait that way at once; past
// it they are closed right after their error is sent.
constexpr size_t kMaxLingering = 64;

// A connection's epoll key: its generation above its record's index. The
// other keys are above every connection's.
constexpr int kIndexBits = 24;
constexpr uint64_t kIndexMask = (uint64_t{1} << kIndexBits) - 1;
constexpr uint64_t kStopKey = ~uint64_t{0};
constexpr uint64_t kListenKey = kStopKey - 1;
constexpr uint64_t kTimerKey = kStopKey - 2;
// Timer keys carry their kind in the top byte.
constexpr int kKindShift = 56;

constexpr size_t kBlockSize = 64;  // connection records made at a time

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

bool watch(int epollFd, int op, int fd, uint32_t events, uint64_t key) {
  struct epoll_event event;
  std::memset(&event, 0, sizeof event);
  event.events = events;
  event.data.u64 = key;
  return ::epoll_ctl(epollFd, op, fd, &event) == 0;
}

}  // namespace

// A request held back by a rule's delay.
struct Delayed {
  std::vector<std::string> args;
  Rule rule;
};

// One client connection. `mutex` guards the hand-over between threads:
// whoever sets `owned` (under the mutex) works on the rest alone until it
// hands the connection back (release, park or close, under the mutex).
// The others look only at the fields above `drained`, under the mutex: an
// event for a connection that is owned sets `again`, so that the owner
// reads once more before it lets go; a time-out sets `timedOut` on one that
// is not owned and wakes the loop for it.
struct Server::Connection {
  enum class Wait { kRead, kWrite, kDelay, kTrickle };

  std::mutex mutex;
  uint32_t index = 0;
  uint32_t generation = 0;  // counts the uses of this record
  int fd = -1;
  bool owned = false;
  Wait wait = Wait::kRead;
  bool again = false;          // an event came while it was owned
  bool timedOut = false;       // its time-out passed while it waited for input
  bool counted = false;        // counts against maxClients (not a refused one)
  bool timeOutQueued = false;  // a kTimeOut timer is waiting for this use
  bool partial = false;        // a request has begun, since `partialSince`
  bool closing = false;        // its last error is out or going: see kLingerBytes
  Clock::time_point partialSince;
  bool drained = false;      // the last read emptied the socket
  bool enrolled = false;     // registered with the loop
  bool watchingOut = false;  // registered for EPOLLOUT too: a reply waits for room
  bool writeShut = false;    // closing, and the error is sent
  size_t discarded = 0;      // closing: input read and dropped
  RequestReader reader{RequestLimits()};
  Commands::Client client;
  Outgoing out;
  std::unique_ptr<Delayed> delayed;
};

struct Server::Block {
  Connection records[kBlockSize];
};

Server::Server(Commands& commands, Journal& journal, Rules& rules, const ServerOptions& options)
    : commands_(commands), journal_(journal), rules_(rules), options_(options) {
  blockCount_ = options_.maxClients / kBlockSize + 2;  // the refused ones that linger too
  blocks_.reset(new std::atomic<Block*>[blockCount_]);
  for (size_t i = 0; i < blockCount_; ++i) {
    blocks_[i].store(nullptr);
  }
}

Server::~Server() {
  if (listenFd_ >= 0) {
    ::close(listenFd_);
    ::unlink(socketPath_.c_str());
  }
  for (size_t i = 0; i < blockCount_; ++i) {
    Block* block = blocks_[i].load();
    if (block != nullptr) {
      for (Connection& c : block->records) {
        if (c.fd >= 0) {
          ::close(c.fd);
        }
      }
      delete block;
    }
  }
  if (epollFd_ >= 0) {
    ::close(epollFd_);
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
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    std::perror("velfileagent: socket");
    return false;
  }
  struct stat st;
  if (::lstat(socketPath.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
    // A socket left behind by an agent that is gone is replaced; a live one
    // is not. (A non-blocking connect to a live listener succeeds or finds
    // its backlog full; to a dead one it is refused.)
    if (::connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0 ||
        errno == EAGAIN) {
      std::fprintf(stderr, "velfileagent: another agent listens on %s\n", socketPath.c_str());
      ::close(fd);
      return false;
    }
    ::close(fd);
    ::unlink(socketPath.c_str());
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
      std::perror("velfileagent: socket");
      return false;
    }
  }
  // The backlog holds a burst of connections while the pool is busy; the
  // kernel caps it at net.core.somaxconn.
  if (::bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(fd, 4096) != 0) {
    std::fprintf(stderr, "velfileagent: cannot listen on %s: %s\n", socketPath.c_str(),
                 std::strerror(errno));
    ::close(fd);
    return false;
  }
  listenFd_ = fd;
  socketPath_ = socketPath;
  return true;
}

bool Server::start(int stopFd) {
  epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
  if (epollFd_ < 0 || !timers_.ok() ||
      !watch(epollFd_, EPOLL_CTL_ADD, listenFd_, EPOLLIN | EPOLLET, kListenKey) ||
      !watch(epollFd_, EPOLL_CTL_ADD, timers_.fd(), EPOLLIN | EPOLLONESHOT, kTimerKey) ||
      // Level-triggered: every thread of the pool sees the stop.
      !watch(epollFd_, EPOLL_CTL_ADD, stopFd, EPOLLIN, kStopKey)) {
    std::perror("velfileagent: cannot set up the event loop");
    return false;
  }
  for (size_t i = 1; i < options_.threads; ++i) {
    try {
      pool_.emplace_back(&Server::serveLoop, this);
    } catch (const std::exception& e) {
      logLine("serving with " + std::to_string(i) + " threads: cannot start more: " + e.what());
      break;
    }
  }
  return true;
}

void Server::serve() {
  serveLoop();
  for (std::thread& thread : pool_) {
    thread.join();
  }
  pool_.clear();
  ::close(listenFd_);
  listenFd_ = -1;
  ::unlink(socketPath_.c_str());
  uint32_t records = 0;
  {
    std::lock_guard<std::mutex> lock(recordsMutex_);
    records = nextRecord_;
  }
  for (uint32_t i = 0; i < records; ++i) {
    Connection& c = *connectionAt(i);
    if (c.fd >= 0) {
      close(c);
    }
  }
}

void Server::serveLoop() {
  // Every thread of the pool carries the agent's name, so that it is
  // counted as the agent's in /proc/<pid>/task (the first one's name is
  // the process's already).
  ::pthread_setname_np(::pthread_self(), "velfileagent");
  std::unique_ptr<char[]> buffer(new char[kReadChunk]);
  for (;;) {
    // One event at a time: a thread that takes a long request leaves every
    // other event to the rest of the pool.
    struct epoll_event event;
    const int n = ::epoll_wait(epollFd_, &event, 1, -1);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      std::perror("velfileagent: epoll_wait");
      return;
    }
    if (n == 0) {
      continue;
    }
    const uint64_t key = event.data.u64;
    if (key == kStopKey) {
      return;
    }
    if (key == kListenKey) {
      acceptClients(buffer.get());
    } else if (key == kTimerKey) {
      onTimers(buffer.get());
    } else {
      onConnectionEvent(key, buffer.get());
    }
  }
}

Server::Connection* Server::connectionAt(uint32_t index) const {
  return &blocks_[index / kBlockSize].load(std::memory_order_acquire)->records[index % kBlockSize];
}

Server::Connection* Server::newConnection() {
  std::lock_guard<std::mutex> lock(recordsMutex_);
  if (!freeRecords_.empty()) {
    const uint32_t index = freeRecords_.back();
    freeRecords_.pop_back();
    return connectionAt(index);
  }
  const uint32_t index = nextRecord_;
  if (index / kBlockSize >= blockCount_) {
    throw std::bad_alloc();  // cannot happen: the limits bound the records in use
  }
  std::atomic<Block*>& slot = blocks_[index / kBlockSize];
  if (slot.load(std::memory_order_relaxed) == nullptr) {
    Block* block = new Block;
    for (size_t i = 0; i < kBlockSize; ++i) {
      block->records[i].index = static_cast<uint32_t>(index + i);
    }
    slot.store(block, std::memory_order_release);
  }
  ++nextRecord_;
  return connectionAt(index);
}

uint64_t Server::eventKey(const Connection& c) const {
  return (uint64_t{c.generation} << kIndexBits) | c.index;
}

uint64_t Server::timerKey(TimerKind kind, const Connection& c) const {
  return (uint64_t{static_cast<uint8_t>(kind)} << kKindShift) | eventKey(c);
}

void Server::acceptClients(char* buffer) {
  // Edge-triggered: every waiting client is taken now, or its event is
  // lost; another thread may be taking them at the same time. The last
  // one taken is served at once by this thread: its request has most often
  // come already, and no other thread needs to be woken for it.
  Connection* newest = nullptr;
  for (;;) {
    const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) {
        continue;
      }
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        // The waiting clients stay in the backlog until descriptors are free.
        logLine(std::string("cannot accept a connection: ") + std::strerror(errno) +
                "; accepting again in 100 ms");
        timers_.add(Clock::now() + kAcceptPause,
                    uint64_t{static_cast<uint8_t>(TimerKind::kAccept)} << kKindShift);
      }
      break;  // none waiting (EAGAIN)
    }
    if (open_.fetch_add(1) >= options_.maxClients) {
      --open_;
      refuseClient(fd);
      continue;
    }
    Connection* c = nullptr;
    try {
      c = newConnection();
    } catch (const std::bad_alloc&) {
      --open_;
      ::close(fd);
      continue;
    }
    {
      std::lock_guard<std::mutex> lock(c->mutex);
      c->fd = fd;
      c->counted = true;
      c->owned = true;
      c->wait = Connection::Wait::kRead;
      c->reader = RequestReader(options_.limits);
    }
    if (newest != nullptr) {
      release(*newest, false);  // registers it
    }
    newest = c;
  }
  if (newest != nullptr) {
    drive(*newest, buffer);
  }
}

void Server::refuseClient(int fd) {
  const std::string limit = std::to_string(options_.maxClients);
  logLine("refused a connection from pid " + std::to_string(peerOf(fd)) +
          ": max number of clients reached (" + limit + ")");
  std::string text = "-ERR max number of clients reached (--max-clients " + limit + ")\r\n";
  Connection* c = nullptr;
  if (lingering_.fetch_add(1) < kMaxLingering) {
    try {
      c = newConnection();
    } catch (const std::bad_alloc&) {
      c = nullptr;
    }
  }
  if (c == nullptr) {
    --lingering_;
    const ssize_t sent = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    (void)sent;
    ::close(fd);
    return;
  }
  {
    std::lock_guard<std::mutex> lock(c->mutex);
    c->fd = fd;
    c->counted = false;
    c->closing = true;
    c->out.startRaw(std::move(text));
    c->wait = Connection::Wait::kWrite;
    c->watchingOut = true;  // the event that sends the error comes at once
    c->owned = true;
  }
  release(*c, true);  // registers it
}

void Server::onConnectionEvent(uint64_t key, char* buffer) {
  Connection& c = *connectionAt(static_cast<uint32_t>(key & kIndexMask));
  bool timedOut = false;
  {
    std::lock_guard<std::mutex> lock(c.mutex);
    if (c.generation != static_cast<uint32_t>(key >> kIndexBits) || c.fd < 0) {
      return;  // a closed use of the record
    }
    if (c.owned) {
      c.again = true;  // its owner reads once more before it lets go
      return;
    }
    if (c.wait == Connection::Wait::kDelay || c.wait == Connection::Wait::kTrickle) {
      return;  // it reads when the pause is over
    }
    c.owned = true;
    timedOut = c.timedOut;
    c.timedOut = false;
  }
  if (timedOut && c.closing) {
    close(c);  // a client that did not close after its last error
    return;
  }
  if (timedOut) {
    const std::string limit = std::to_string(options_.requestTimeoutMs);
    refuse(c, "a request", "not complete within " + limit + " ms");
    c.closing = true;
    c.partial = false;
    c.out.startRaw("-ERR request not complete within " + limit + " ms (--request-timeout-ms)\r\n");
  }
  drive(c, buffer);
}

void Server::onTimers(char* buffer) {
  std::vector<uint64_t> due;
  const Clock::time_point now = Clock::now();
  timers_.takeDue(now, due);
  watch(epollFd_, EPOLL_CTL_MOD, timers_.fd(), EPOLLIN | EPOLLONESHOT, kTimerKey);
  for (const uint64_t key : due) {
    const auto kind = static_cast<TimerKind>(key >> kKindShift);
    if (kind == TimerKind::kAccept) {
      acceptClients(buffer);
      continue;
    }
    Connection& c = *connectionAt(static_cast<uint32_t>(key & kIndexMask));
    std::unique_lock<std::mutex> lock(c.mutex);
    if (c.generation != static_cast<uint32_t>((key >> kIndexBits) & 0xffffffffu) || c.fd < 0) {
      continue;  // that use of the record is over
    }
    if (kind == TimerKind::kTimeOut) {
      c.timeOutQueued = false;
      // A connection some thread works on is timed again when it is handed
      // back (release()).
      if (c.owned || c.wait != Connection::Wait::kRead || !c.partial) {
        continue;
      }
      const Clock::time_point deadline =
          c.partialSince +
          std::chrono::milliseconds(c.closing ? kLingerMs : options_.requestTimeoutMs);
      if (now < deadline) {
        timers_.add(deadline, key);
        c.timeOutQueued = true;
        continue;
      }
      // The loop takes it from here: shutting its input makes it readable.
      // (Its descriptor stays open until the mutex is let go.)
      c.timedOut = true;
      ::shutdown(c.fd, SHUT_RD);
      continue;
    }
    const auto waited =
        kind == TimerKind::kDelay ? Connection::Wait::kDelay : Connection::Wait::kTrickle;
    if (c.owned || c.wait != waited) {
      continue;
    }
    c.owned = true;
    lock.unlock();
    if (kind == TimerKind::kTrickle) {
      c.out.resume();
      drive(c, buffer);
      continue;
    }
    std::unique_ptr<Delayed> delayed = std::move(c.delayed);
    bool mine = false;
    try {
      mine = respond(c, delayed->args, &delayed->rule);
    } catch (const std::exception& e) {
      logLine(std::string("connection dropped: ") + e.what());
      close(c);
    }
    if (mine) {
      drive(c, buffer);
    }
  }
}

void Server::watchOutput(Connection& c, bool on) {
  if (!c.enrolled) {
    c.watchingOut = on;  // registered so when it is handed to the loop
  } else if (c.watchingOut != on) {
    const uint32_t events = EPOLLIN | EPOLLRDHUP | EPOLLET | (on ? uint32_t{EPOLLOUT} : 0u);
    watch(epollFd_, EPOLL_CTL_MOD, c.fd, events, eventKey(c));
    c.watchingOut = on;
  }
}

void Server::drive(Connection& c, char* buffer) {
  try {
    std::vector<std::string> args;
    std::string error;
    for (;;) {
      if (!c.out.idle()) {
        switch (c.out.flush(c.fd)) {
          case Outgoing::Progress::kBlocked:
            watchOutput(c, true);
            if (release(c, true)) {
              return;
            }
            continue;
          case Outgoing::Progress::kPause:
            park(c, TimerKind::kTrickle,
                 Clock::now() + std::chrono::milliseconds(c.out.trickleMs()));
            return;
          case Outgoing::Progress::kFailed:
            close(c);
            return;
          case Outgoing::Progress::kDone:
            watchOutput(c, false);
            break;
        }
      }
      if (c.closing) {
        if (!c.writeShut) {
          ::shutdown(c.fd, SHUT_WR);
          c.writeShut = true;
        }
        const ssize_t n = ::recv(c.fd, buffer, kReadChunk, 0);
        if (n > 0 && (c.discarded += static_cast<size_t>(n)) <= kLingerBytes) {
          continue;
        }
        if (n < 0 && errno == EINTR) {
          continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
          if (release(c, false)) {
            return;
          }
          continue;
        }
        close(c);  // the client closed, failed, or keeps sending
        return;
      }
      const RequestReader::Result result = c.reader.next(args, error);
      if (result == RequestReader::Result::kRequest) {
        c.partial = false;
        if (!answer(c, args)) {
          return;
        }
        args.clear();
        continue;
      }
      if (result == RequestReader::Result::kError) {
        refuse(c, "a request", error);
        c.closing = true;
        c.out.startRaw("-ERR " + error + "\r\n");
        continue;
      }
      if (c.drained) {
        // The last read took less than it could: the socket was empty, and
        // whatever comes after it raises an event.
        if (release(c, false)) {
          return;
        }
        continue;
      }
      const ssize_t n = ::recv(c.fd, buffer, kReadChunk, 0);
      if (n > 0) {
        c.reader.feed(buffer, static_cast<size_t>(n));
        c.drained = static_cast<size_t>(n) < kReadChunk;
        continue;
      }
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        if (release(c, false)) {
          return;
        }
        continue;
      }
      close(c);  // the client is gone
      return;
    }
  } catch (const std::exception& e) {
    logLine(std::string("connection dropped: ") + e.what());
    close(c);
  }
}

bool Server::answer(Connection& c, std::vector<std::string>& args) {
  journal_.record(args);
  Rule rule;
  const bool ruled = rules_.find(args, rule);
  if (ruled && rule.delayMs > 0) {
    const long delayMs = rule.delayMs;
    c.delayed.reset(new Delayed{std::move(args), std::move(rule)});
    park(c, TimerKind::kDelay, Clock::now() + std::chrono::milliseconds(delayMs));
    return false;
  }
  return respond(c, args, ruled ? &rule : nullptr);
}

bool Server::respond(Connection& c, const std::vector<std::string>& args, const Rule* rule) {
  Reply reply;
  if (rule != nullptr && rule->hasReply) {
    reply = rule->reply;
  } else {
    // A rule's faults hold for this request only, on the thread serving it.
    if (rule != nullptr) {
      armFaults(rule->faults);
    }
    reply = commands_.execute(c.client, args);
    disarmFaults();
  }
  if (reply.refused) {
    refuse(c, describeRequest(args), reply.text);
  }
  if (reply.kind == Reply::Kind::kClose) {
    close(c);
    return false;
  }
  const size_t size = encodedSize(reply);
  if (size > options_.limits.maxUnsentReply) {
    refuse(c, describeRequest(args),
           "its reply of " + std::to_string(size) + " bytes is above the cap of " +
               std::to_string(options_.limits.maxUnsentReply));
    c.closing = true;
    c.out.startRaw("-ERR reply too large\r\n");
    return true;
  }
  c.out.start(reply, rule != nullptr ? rule->trickleMs : 0);
  return true;
}

bool Server::release(Connection& c, bool writing) {
  bool enroll = false;
  int fd = -1;
  uint64_t key = 0;
  uint32_t events = 0;
  {
    std::lock_guard<std::mutex> lock(c.mutex);
    c.drained = false;
    if (c.again) {
      c.again = false;  // something came meanwhile: go on reading
      return false;
    }
    c.owned = false;
    c.wait = writing ? Connection::Wait::kWrite : Connection::Wait::kRead;
    if (!writing && (c.closing || c.reader.midRequest())) {
      if (!c.partial) {
        c.partial = true;
        c.partialSince = Clock::now();
      }
      if (!c.timeOutQueued) {
        const long ms = c.closing ? kLingerMs : options_.requestTimeoutMs;
        timers_.add(c.partialSince + std::chrono::milliseconds(ms),
                    timerKey(TimerKind::kTimeOut, c));
        c.timeOutQueued = true;
      }
    }
    if (!c.enrolled) {
      c.enrolled = enroll = true;
      fd = c.fd;
      key = eventKey(c);
      events = EPOLLIN | EPOLLRDHUP | EPOLLET | (c.watchingOut ? uint32_t{EPOLLOUT} : 0u);
    }
  }
  // A connection is registered when it is first handed to the loop.
  // Edge-triggered: an event for each arrival of input (and one at once
  // for what is there already), and none for the room that every reply
  // read by the client makes, unless a reply waits for it. Until the
  // registration nothing but a time-out can reach the connection, and a
  // time-out only shuts its input.
  if (enroll && !watch(epollFd_, EPOLL_CTL_ADD, fd, events, key)) {
    {
      std::lock_guard<std::mutex> lock(c.mutex);
      c.owned = true;
    }
    close(c);
  }
  return true;
}

void Server::park(Connection& c, TimerKind kind, Clock::time_point when) {
  std::lock_guard<std::mutex> lock(c.mutex);
  c.owned = false;
  c.drained = false;  // it reads again when the pause is over
  c.again = false;
  c.wait = kind == TimerKind::kDelay ? Connection::Wait::kDelay : Connection::Wait::kTrickle;
  timers_.add(when, timerKey(kind, c));
}

void Server::close(Connection& c) {
  // The handles opened on this connection close with it.
  c.client.handles.clear();
  c.out.clear();
  c.reader = RequestReader(options_.limits);
  c.delayed.reset();
  const bool counted = c.counted;
  {
    std::lock_guard<std::mutex> lock(c.mutex);
    ::close(c.fd);
    c.fd = -1;
    ++c.generation;
    c.owned = false;
    c.wait = Connection::Wait::kRead;
    c.again = false;
    c.timedOut = false;
    c.counted = false;
    c.timeOutQueued = false;
    c.partial = false;
    c.closing = false;
    c.drained = false;
    c.enrolled = false;
    c.watchingOut = false;
    c.writeShut = false;
    c.discarded = 0;
  }
  {
    std::lock_guard<std::mutex> lock(recordsMutex_);
    freeRecords_.push_back(c.index);
  }
  // Counted down only once the record is free, so that records in use never
  // outnumber the connections the limits allow.
  if (counted) {
    --open_;
  } else {
    --lingering_;
  }
}

void Server::refuse(Connection& c, const std::string& what, const std::string& why) {
  logLine("refused " + what + " from pid " + std::to_string(peerOf(c.fd)) + ": " + why);
}

}  // namespace velagent
