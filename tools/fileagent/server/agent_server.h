// The agent's socket server: accepts clients on a Unix-domain socket, one
// thread per connection, reads their requests (request.h) and answers each
// one through the journal, the rules and the command layer.
//
// Memory per connection is bounded: a request within the caps of
// RequestLimits, and one reply at a time. A client that does not read its
// replies blocks only its own thread, which then stops reading its
// requests; large reads are streamed from the file, and any other reply
// above the unsent-reply cap is refused and the connection closed. A
// connection's handles are closed when it ends.
#ifndef VEL_TOOLS_FILEAGENT_SERVER_AGENT_SERVER_H_
#define VEL_TOOLS_FILEAGENT_SERVER_AGENT_SERVER_H_

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "commands.h"
#include "server/control.h"
#include "server/request.h"

namespace velagent {

class Server {
 public:
  Server(Commands& commands, Journal& journal, Rules& rules, const RequestLimits& limits)
      : commands_(commands), journal_(journal), rules_(rules), limits_(limits) {}
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds and listens on `socketPath` (creating its folder); false with a
  // message on standard error when that fails.
  bool listenOn(const std::string& socketPath);
  // Serves clients until `stopFd` becomes readable; then closes every
  // connection, waits for their threads and removes the socket.
  void run(int stopFd);

 private:
  struct Session {
    int fd = -1;
    pid_t peer = 0;  // the client's process, for the log
    std::thread thread;
    std::atomic<bool> done{false};
  };

  void serve(Session* session);
  // Answers one request; false when the connection is to be closed.
  bool answer(Session& session, Commands::Client& client, const std::vector<std::string>& args);
  // Sends `reply`, one byte at a time after `trickleMs` each when that is
  // above 0; false when the connection is to be closed.
  bool send(int fd, const Reply& reply, long trickleMs);
  bool sendBytes(int fd, const char* data, size_t size, long trickleMs);
  void refuse(const Session& session, const std::string& what, const std::string& why);
  void reap(bool all);
  void shutdownAll();

  Commands& commands_;
  Journal& journal_;
  Rules& rules_;
  RequestLimits limits_;
  std::string socketPath_;
  int listenFd_ = -1;
  std::list<std::unique_ptr<Session>> sessions_;
  std::mutex stopMutex_;
  std::condition_variable stopCv_;
  bool stopping_ = false;
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_SERVER_AGENT_SERVER_H_
