// Runs the reference file agent in a temporary directory of its own for
// tests that talk to it: a store (the service's files), a mirror root, a
// folder for its socket, a log folder, a journal of every request and a
// rules file that can be rewritten while it runs.
#ifndef VEL_TESTS_SUPPORT_AGENT_FIXTURE_H_
#define VEL_TESTS_SUPPORT_AGENT_FIXTURE_H_

#include <hiredis/hiredis.h>
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "support/ceph_cluster.h"
#include "support/s3_client.h"
#include "support/temp_dir.h"
#include "support/webdav_server.h"

namespace veltest {

// How to start the agent beyond the defaults.
struct AgentOptions {
  std::string rules;              // first content of the rules file
  std::vector<std::string> args;  // added to the agent's command line
  long long fileSizeLimit = -1;   // the agent's RLIMIT_FSIZE in bytes (-1: unchanged),
                                  // a full disk for the files it writes
  bool captureLog = false;        // its standard error to agentLogPath()
  // Serve store/ through a WebDAV server (webdav_server.h) started for the
  // agent, with --webdav (and its login and certificate) instead of --store.
  bool webdav = false;
  WebDavServerOptions server;  // that server's login and HTTPS
  // Another device: serve the store of `sharedWith` (its folder, its
  // WebDAV server, or its S3 prefix) with a mirror of its own.
  const class AgentFixture* sharedWith = nullptr;
  // Serve a key prefix of the run's S3 bucket (ceph_cluster.h) with --s3:
  // a fresh prefix, or the one of `s3Url` (another agent's s3Url(), so that
  // two agents share a store). The keys go in the environment.
  bool s3 = false;
  std::string s3Url;
  bool s3Https = false;  // through the gateway's HTTPS port, trusting its certificate
};

// The service every request names.
inline const std::string kSvc = "TestService";

// Options whose agent writes its standard error to agentLogPath(), out of
// the test's output, with `args` added to its command line.
inline AgentOptions quiet(std::vector<std::string> args = {}) {
  AgentOptions options;
  options.args = std::move(args);
  options.captureLog = true;
  return options;
}

// Starts the agent (VEL_AGENT_BIN) in a fresh temporary directory with
// store/, mirror/, uds/ and log/; socket uds/velfileagent/velfileagent.sock.
// Waits for "ready". The destructor stops it (SIGTERM, waits) and removes the directory.
// With AgentOptions::webdav a WebDAV server serves store/ (its files in
// httpd/) and the agent talks to it; with AgentOptions::s3 the agent serves
// a prefix of the run's S3 bucket, and store/ is not used.
class AgentFixture {
 public:
  explicit AgentFixture(const std::string& rulesJson = "");
  explicit AgentFixture(const AgentOptions& options);
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
  std::string stateDir() const;  // the agent's sync record (--state)
  // Empties the sync record while the agent runs (as a second process
  // would), for tests that set up the store and the mirror again.
  void forgetRecord() const;
  std::vector<std::vector<std::string>> journal() const;  // every request so far
  std::vector<std::string> requests() const;              // the same, arguments joined by blanks
  void clearJournal();
  void setRules(const std::string& rulesJson);  // applies to the next request
  // Writes a file below store() (making its folders) and, with a WebDAV
  // server, gives it to the server's user; with S3 puts the object (and
  // markers for its folders).
  void storeFile(const std::string& rel, const std::string& content) const;
  void exportEnv() const;  // setenv UDS_ROOT_OSSUSER, TARN_ROOT_DIR (mirror), _APP_LOG_DIR
  void stop();             // idempotent
  void kill();             // SIGKILL, reaped at once; idempotent
  // Starts it again on the same folders (after stop() or kill()); true
  // once it is ready.
  bool restart();
  std::string agentLogPath() const;  // with captureLog
  std::string agentLog() const;
  // The WebDAV server behind the agent; null for a folder store.
  WebDavServer* server() const { return server_ ? server_.get() : sharedServer_; }
  // The S3 side: a client on the agent's prefix (null without S3), and the
  // agent's --s3 URL.
  S3Client* s3() const { return s3_.get(); }
  const std::string& s3Url() const { return s3Url_; }

  // True once the agent printed "ready"; false when it could not start.
  bool ready() const { return ready_; }
  // The agent's process id (-1 when stopped), and its exit status after
  // stop() (-1 when it did not exit by itself after SIGTERM).
  pid_t pid() const { return pid_; }
  int exitStatus() const { return exitStatus_; }

 private:
  bool start();

  TempDir dir_;
  AgentOptions options_;
  std::string store_;
  std::unique_ptr<WebDavServer> server_;
  WebDavServer* sharedServer_ = nullptr;
  const S3Service* s3Service_ = nullptr;
  std::unique_ptr<S3Client> s3_;
  std::string s3Url_;
  bool ownPrefix_ = false;  // made for this agent: emptied at the end
  pid_t pid_ = -1;
  int outFd_ = -1;
  bool ready_ = false;
  int exitStatus_ = -1;
};

// One connection to the agent, for tests that pipeline requests, leave
// replies unread or send bytes of their own; replies are read with a
// hiredis reader.
class AgentConnection {
 public:
  explicit AgentConnection(const std::string& socketPath);
  ~AgentConnection();
  AgentConnection(const AgentConnection&) = delete;
  AgentConnection& operator=(const AgentConnection&) = delete;

  bool connected() const { return fd_ >= 0; }
  // Sends one request without waiting for its reply; false when it could
  // not be sent whole.
  bool send(const std::vector<std::string>& args);
  bool sendRaw(const std::string& bytes);
  // The next reply: "+status", "-error", ":number", "$data", "$nil", or
  // "*" followed by the elements, each after a "\n"; "" when the
  // connection ended or nothing came within `timeoutMs` (0: nothing had
  // come yet).
  std::string reply(int timeoutMs = 10000);
  std::string ask(const std::vector<std::string>& args, int timeoutMs = 10000);
  // The bytes that come, unread by reply(), until the agent closes the
  // connection (then `closed`) or `timeoutMs` pass.
  std::string rawUntilClosed(int timeoutMs, bool& closed);
  bool closedByPeer(int timeoutMs);
  // True once bytes (or the end) wait to be read, within `timeoutMs`;
  // nothing is read.
  bool waitReadable(int timeoutMs);
  void close();

 private:
  // Waits until `deadline` for bytes: how many came into `chunk`, 0 at
  // the end of the stream, -1 on time-out or error.
  long receive(char* chunk, size_t size, std::chrono::steady_clock::time_point deadline);

  int fd_ = -1;
  redisReader* reader_;
};

}  // namespace veltest

#endif  // VEL_TESTS_SUPPORT_AGENT_FIXTURE_H_
