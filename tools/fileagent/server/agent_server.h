// The agent's socket server: one event loop (a single epoll set holding the
// listening socket, every connection, the deadlines of timer_queue.h and
// the stop descriptor) served by a small fixed pool of threads. Whichever
// thread takes a connection's event reads its requests (request.h),
// answers each through the journal, the rules and the command layer, and
// sends the reply as far as the socket takes it; the thread that answers a
// request is the one that did the store work, so that no request waits for
// a hand-over between threads. A connection is registered one-shot: one
// thread at a time works on it, and it is re-armed when that thread is
// done. A connection that idles, or that sent part of a request, costs a
// descriptor and a small record, never a thread.
//
// Limits, each answered with an error reply and the connection closed:
//  - more than `maxClients` connections at once: "ERR max number of clients
//    reached (...)", before any request is read;
//  - a request begun but not complete `requestTimeoutMs` after its first
//    bytes came: "ERR request not complete within ... ms (...)";
//  - a request or a reply above the caps of RequestLimits.
// A client that does not read its replies holds only its own connection:
// it is not read from until its reply is out, a large read is sent from the
// file one piece at a time, and any other reply above the unsent-reply cap
// is refused. A connection's handles are closed when it ends.
//
// Thread safety: listenOn(), start() and serve() are called by one thread,
// in that order; start() starts the rest of the pool and serve() joins it
// before it returns.
#ifndef VEL_TOOLS_FILEAGENT_SERVER_AGENT_SERVER_H_
#define VEL_TOOLS_FILEAGENT_SERVER_AGENT_SERVER_H_

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "commands.h"
#include "server/control.h"
#include "server/request.h"
#include "server/timer_queue.h"

namespace velagent {

// How the server serves; the defaults are the agent's.
struct ServerOptions {
  RequestLimits limits;
  size_t threads = 4;             // the pool, the thread that calls run() included
  size_t maxClients = 10000;      // connections open at once
  long requestTimeoutMs = 30000;  // from a request's first bytes to its last
};

class Server {
 public:
  Server(Commands& commands, Journal& journal, Rules& rules, const ServerOptions& options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds and listens on `socketPath` (creating its folder); false with a
  // message on standard error when that fails.
  bool listenOn(const std::string& socketPath);
  // Sets up the event loop and starts options.threads - 1 threads serving
  // it, until `stopFd` becomes readable; false with a message on standard
  // error when the loop cannot be set up. After it, the agent has every
  // descriptor and thread it runs with.
  bool start(int stopFd);
  // Serves on this thread too, until `stopFd` becomes readable; then lets
  // every thread finish the request it is answering, joins them, closes
  // every connection and removes the socket.
  void serve();

  struct Connection;

 private:
  enum class TimerKind : uint8_t { kTimeOut = 1, kDelay, kTrickle, kAccept };

  void serveLoop();
  void acceptClients(char* buffer);
  void refuseClient(int fd);
  void onTimers(char* buffer);
  void onConnectionEvent(uint64_t key, char* buffer);

  // The connection state machine; the calling thread owns `c`.
  void drive(Connection& c, char* buffer);
  // Answers one request: false when `c` is no longer this thread's (it
  // waits for a delay, or it is closed).
  bool answer(Connection& c, std::vector<std::string>& args);
  bool respond(Connection& c, const std::vector<std::string>& args, const Rule* rule);
  // Hands `c` back to the loop (registering it the first time), waiting
  // for input (or for room for its output, with `writing`); a request
  // begun is timed from here. False when an event came meanwhile: `c`
  // stays this thread's, to read again.
  bool release(Connection& c, bool writing);
  // Whether the loop reports room for output on `c` (while a reply waits).
  void watchOutput(Connection& c, bool on);
  // Parks `c` until `when`, for a delay or a trickled byte.
  void park(Connection& c, TimerKind kind, TimerQueue::Clock::time_point when);
  void close(Connection& c);
  void refuse(Connection& c, const std::string& what, const std::string& why);

  Connection* newConnection();
  Connection* connectionAt(uint32_t index) const;
  uint64_t eventKey(const Connection& c) const;
  uint64_t timerKey(TimerKind kind, const Connection& c) const;

  Commands& commands_;
  Journal& journal_;
  Rules& rules_;
  ServerOptions options_;
  std::string socketPath_;
  int listenFd_ = -1;
  int epollFd_ = -1;
  TimerQueue timers_;
  std::vector<std::thread> pool_;
  std::atomic<size_t> open_{0};       // connections served
  std::atomic<size_t> lingering_{0};  // refused ones waiting for their client to close

  // Connection records are made in blocks as connections come and are
  // never freed, only reused: an event that names a record which closed
  // meanwhile finds it with another generation and is ignored.
  struct Block;
  std::unique_ptr<std::atomic<Block*>[]> blocks_;
  size_t blockCount_ = 0;
  std::mutex recordsMutex_;
  std::vector<uint32_t> freeRecords_;
  uint32_t nextRecord_ = 0;
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_SERVER_AGENT_SERVER_H_
