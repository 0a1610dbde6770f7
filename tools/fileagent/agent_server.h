// The agent's socket server: accepts clients on a Unix-domain socket, reads
// their requests with the hiredis reply reader and answers each one through
// the journal, the rules and the file service.
#ifndef VEL_TOOLS_FILEAGENT_AGENT_SERVER_H_
#define VEL_TOOLS_FILEAGENT_AGENT_SERVER_H_

#include <atomic>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "control.h"
#include "service.h"

namespace velagent {

class Server {
 public:
  Server(FileService& service, Journal& journal, Rules& rules)
      : service_(service), journal_(journal), rules_(rules) {}
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
    std::thread thread;
    std::atomic<bool> done{false};
  };

  void serve(Session* session);
  // Answers one request; false when the connection is to be closed.
  bool answer(int fd, const std::vector<std::string>& args);
  void reap(bool all);
  void shutdownAll();

  FileService& service_;
  Journal& journal_;
  Rules& rules_;
  std::string socketPath_;
  int listenFd_ = -1;
  std::list<std::unique_ptr<Session>> sessions_;
  std::mutex stopMutex_;
  std::condition_variable stopCv_;
  bool stopping_ = false;
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_AGENT_SERVER_H_
