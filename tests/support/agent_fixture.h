// Runs the reference file agent in a temporary directory of its own for
// tests that talk to it: a store (the service's files), a mirror root, a
// folder for its socket, a log folder, a journal of every request and a
// rules file that can be rewritten while it runs.
#ifndef VEL_TESTS_SUPPORT_AGENT_FIXTURE_H_
#define VEL_TESTS_SUPPORT_AGENT_FIXTURE_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace veltest {

// Starts the agent (VEL_AGENT_BIN) in a fresh temporary directory with
// store/, mirror/, uds/ and log/; socket uds/velfileagent/velfileagent.sock.
// Waits for "ready". The destructor stops it (SIGTERM, waits) and removes the directory.
class AgentFixture {
 public:
  explicit AgentFixture(const std::string& rulesJson = "");
  ~AgentFixture();
  AgentFixture(const AgentFixture&) = delete;
  AgentFixture& operator=(const AgentFixture&) = delete;

  std::string root() const;
  std::string store() const;
  std::string mirror() const;
  std::string udsRoot() const;  // value for UDS_ROOT_OSSUSER
  std::string socketPath() const;
  std::string logDir() const;  // value for _APP_LOG_DIR
  std::string journalPath() const;
  std::string rulesPath() const;
  std::vector<std::vector<std::string>> journal() const;  // every request so far
  void clearJournal();
  void setRules(const std::string& rulesJson);  // applies to the next request
  void exportEnv() const;  // setenv UDS_ROOT_OSSUSER, TARN_ROOT_DIR (mirror), _APP_LOG_DIR
  void stop();             // idempotent

  // True once the agent printed "ready"; false when it could not start.
  bool ready() const { return ready_; }
  // The agent's process id (-1 when stopped), and its exit status after
  // stop() (-1 when it did not exit by itself after SIGTERM).
  pid_t pid() const { return pid_; }
  int exitStatus() const { return exitStatus_; }

 private:
  bool start();

  TempDir dir_;
  pid_t pid_ = -1;
  int outFd_ = -1;
  bool ready_ = false;
  int exitStatus_ = -1;
};

}  // namespace veltest

#endif  // VEL_TESTS_SUPPORT_AGENT_FIXTURE_H_
