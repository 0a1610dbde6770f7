// The file agent as a service: a fixed pool of threads serves every
// connection from one event loop, so that thousands of idle connections
// cost no thread and others are still answered; a request begun and not
// finished is answered and closed after the time-out; a client past the
// connection limit is told so and closed; and each limit leaves a line
// naming it in the client's log. Thread counts are read from /proc.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/agent_fixture.h"
#include "support/fake_client.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "vel/records.h"
#include "vel/tarn_client.h"

namespace {

using namespace veltest;
using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer runs one thread of its own in the agent, named like it.
constexpr size_t kRuntimeThreads = 1;
#else
constexpr size_t kRuntimeThreads = 0;
#endif

size_t entriesOf(pid_t pid, const std::string& what) {
  return namesIn("/proc/" + std::to_string(pid) + "/" + what).size();
}

// Threads of `pid` named like the agent's pool (its first thread included),
// less those of the runtime.
size_t poolThreads(pid_t pid) {
  size_t count = 0;
  for (const std::string& task : namesIn("/proc/" + std::to_string(pid) + "/task")) {
    std::ifstream comm("/proc/" + std::to_string(pid) + "/task/" + task + "/comm");
    std::string name;
    std::getline(comm, name);
    count += name == "velfileagent" ? 1 : 0;
  }
  return count - kRuntimeThreads;
}

// Samples the number of threads of `pid` every few milliseconds until it
// is destroyed or stopped: the least and the most it saw.
class ThreadWatch {
 public:
  explicit ThreadWatch(pid_t pid) : pid_(pid), thread_([this] { run(); }) {}
  ~ThreadWatch() { stop(); }
  void stop() {
    done_ = true;
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  size_t least() const { return least_; }
  size_t most() const { return most_; }

 private:
  void run() {
    while (!done_) {
      const size_t now = entriesOf(pid_, "task");
      least_ = std::min(least_.load(), now);
      most_ = std::max(most_.load(), now);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

  pid_t pid_;
  std::atomic<bool> done_{false};
  std::atomic<size_t> least_{~size_t{0}};
  std::atomic<size_t> most_{0};
  std::thread thread_;
};

// Raises this process's limit on open files as far as it may go; the new
// limit.
size_t raiseFileLimit() {
  struct rlimit files;
  if (::getrlimit(RLIMIT_NOFILE, &files) != 0) {
    return 1024;
  }
  files.rlim_cur = files.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &files);
  ::getrlimit(RLIMIT_NOFILE, &files);
  return static_cast<size_t>(files.rlim_cur);
}

// Connections that send nothing, closed by the destructor.
class IdleConnections {
 public:
  ~IdleConnections() {
    for (int fd : fds_) {
      ::close(fd);
    }
  }
  // Opens `count` more; false when one cannot be opened.
  bool open(const std::string& socketPath, size_t count) {
    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socketPath.c_str(), sizeof addr.sun_path - 1);
    for (size_t i = 0; i < count; ++i) {
      const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      if (fd < 0) {
        return false;
      }
      fds_.push_back(fd);
      if (::connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
        return false;
      }
    }
    return true;
  }
  size_t size() const { return fds_.size(); }
  // True when none of them has been answered or closed by the agent.
  bool allQuiet() const {
    for (int fd : fds_) {
      struct pollfd pfd = {fd, POLLIN, 0};
      if (::poll(&pfd, 1, 0) != 0) {
        return false;
      }
    }
    return true;
  }

 private:
  std::vector<int> fds_;
};

// Waits until the agent `pid` holds at least `count` descriptors.
bool awaitDescriptors(pid_t pid, size_t count, int seconds) {
  for (const auto until = Clock::now() + std::chrono::seconds(seconds);
       entriesOf(pid, "fd") < count;) {
    if (Clock::now() > until) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

ProcessResult velTool(const AgentFixture& agent, const std::vector<std::string>& args) {
  std::vector<std::string> argv = args;
  argv.insert(argv.begin(), VEL_TOOL_BIN);
  return runProcess(argv, {{"UDS_ROOT_OSSUSER", agent.udsRoot()},
                           {"TARN_ROOT_DIR", agent.mirror()},
                           {"_APP_LOG_DIR", agent.logDir()},
                           {"TARN_TIME_OUT", "20000"}});
}

size_t linesWith(const std::string& text, const std::string& piece) {
  size_t count = 0;
  for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) {
    ++count;
  }
  return count;
}

const std::string kMetadataHalf = "*3\r\n$13\r\ntarn.metadata\r\n$11\r\nTest";
const std::string kMetadataRest = "Service\r\n$15\r\ndocs/readme.txt\r\n";

TEST(AgentService, AFloodOfIdleConnectionsHoldsNoThreadWhileLsAndUpdateAreAnswered) {
  // A few thousand: far more than any pool, few enough for a quick test.
  // The agent raises its own limit on open files; this process needs room
  // for the flood too.
  const size_t limit = raiseFileLimit();
  const size_t flood = std::min<size_t>(2000, limit > 200 ? limit - 200 : 0);
  ASSERT_GE(flood, 500u) << "the limit on open files (" << limit << ") leaves no room for a flood";
  AgentFixture agent(quiet({"--threads", "3"}));
  ASSERT_TRUE(agent.ready());
  agent.storeFile("docs/readme.txt", "service copy\n");
  agent.storeFile("docs/notes/mon.txt", "monday\n");
  const pid_t pid = agent.pid();
  // The pool is started before "ready"; on a loaded machine under an
  // emulator its last thread may show in /proc a moment later.
  size_t pool = poolThreads(pid);
  for (auto until = Clock::now() + std::chrono::seconds(5); pool < 3 && Clock::now() < until;
       pool = poolThreads(pid)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(3u, pool);
  const size_t threads = entriesOf(pid, "task");
  const size_t files = entriesOf(pid, "fd");

  ThreadWatch watch(pid);
  IdleConnections idle;
  ASSERT_TRUE(idle.open(agent.socketPath(), flood)) << std::strerror(errno);
  ASSERT_TRUE(awaitDescriptors(pid, files + flood, 60))
      << "the agent holds " << entriesOf(pid, "fd") << " descriptors";

  ProcessResult ls;
  ProcessResult update;
  std::thread lister([&] { ls = velTool(agent, {"ls", "docs"}); });
  update = velTool(agent, {"update", "docs"});
  lister.join();
  EXPECT_EQ(0, ls.status);
  EXPECT_EQ(
      "check Exit successed : docs\n"
      "docs/notes/:\n"
      "docs/readme.txt:\n"
      "====>docs/notes === 5 === docs\n"
      "====>docs/readme.txt === 5 === docs\n"
      "notes\n"
      "readme.txt\n",
      ls.out);
  EXPECT_EQ(0, update.status) << update.out;
  EXPECT_EQ("service copy\n", readFile(agent.mirror() + "/docs/readme.txt"));
  EXPECT_EQ("monday\n", readFile(agent.mirror() + "/docs/notes/mon.txt"));

  // The idle connections were neither answered nor closed, and each is
  // still served when it speaks.
  EXPECT_TRUE(idle.allQuiet());
  EXPECT_EQ(files + flood, entriesOf(pid, "fd"));
  watch.stop();
  EXPECT_EQ(threads, watch.least());
  EXPECT_EQ(threads, watch.most()) << "the agent started threads for connections";
  EXPECT_EQ(3u, poolThreads(pid));
}

TEST(AgentService, HalfSentRequestsAreAnsweredAndClosedAfterTheTimeOutWhileOthersAreServed) {
  AgentFixture agent(quiet({"--request-timeout-ms", "1000", "--threads", "2"}));
  ASSERT_TRUE(agent.ready());
  agent.storeFile("docs/readme.txt", "service copy\n");
  const pid_t pid = agent.pid();
  const size_t threads = entriesOf(pid, "task");
  ThreadWatch watch(pid);

  std::vector<std::unique_ptr<AgentConnection>> halves;
  for (int i = 0; i < 50; ++i) {
    halves.emplace_back(new AgentConnection(agent.socketPath()));
    ASSERT_TRUE(halves.back()->sendRaw(kMetadataHalf));
  }
  const Clock::time_point sent = Clock::now();
  // One that keeps sending a byte at a time: the time-out runs from a
  // request's first bytes, not from its last.
  AgentConnection trickler(agent.socketPath());
  std::atomic<bool> trickling{true};
  std::thread trickle([&] {
    for (size_t i = 0; trickling && i < kMetadataHalf.size(); ++i) {
      trickler.sendRaw(kMetadataHalf.substr(i, 1));
      std::this_thread::sleep_for(std::chrono::milliseconds(40));
    }
  });
  // Connections that sent nothing, and one whose request comes in two
  // pieces within the time-out.
  AgentConnection quiet1(agent.socketPath());
  AgentConnection quiet2(agent.socketPath());
  AgentConnection pieces(agent.socketPath());
  ASSERT_TRUE(pieces.sendRaw(kMetadataHalf));

  // Others are served while the halves wait.
  int served = 0;
  while (Clock::now() - sent < std::chrono::milliseconds(300)) {
    AgentConnection other(agent.socketPath());
    const std::string meta = other.ask({"tarn.metadata", kSvc, "docs/readme.txt"}, 5000);
    ASSERT_NE(std::string::npos, meta.find("\"Name\":\"readme.txt\"")) << meta;
    ++served;
  }
  EXPECT_GE(served, 1);
  ASSERT_TRUE(pieces.sendRaw(kMetadataRest));
  EXPECT_NE(std::string::npos, pieces.reply(5000).find("\"Size\":13"));
  for (const auto& half : halves) {
    EXPECT_EQ("", half->reply(0)) << "answered before its time-out";
  }

  const std::string timedOut = "-ERR request not complete within 1000 ms (--request-timeout-ms)";
  for (const auto& half : halves) {
    EXPECT_EQ(timedOut, half->reply(10000));
    EXPECT_TRUE(half->closedByPeer(5000));
  }
  EXPECT_GE(Clock::now() - sent, std::chrono::milliseconds(1000));
  EXPECT_EQ(timedOut, trickler.reply(10000));
  EXPECT_TRUE(trickler.closedByPeer(5000));
  trickling = false;
  trickle.join();
  // A connection that has not begun a request has no time-out.
  EXPECT_NE(std::string::npos,
            quiet1.ask({"tarn.metadata", kSvc, "docs/readme.txt"}, 5000).find("\"Size\":13"));
  EXPECT_NE(std::string::npos,
            quiet2.ask({"tarn.metadata", kSvc, "docs/readme.txt"}, 5000).find("\"Size\":13"));
  watch.stop();
  EXPECT_EQ(threads, watch.most());
  EXPECT_EQ(threads, watch.least());
  EXPECT_EQ(51u,
            linesWith(agent.agentLog(), "refused a request from pid " + std::to_string(::getpid()) +
                                            ": not complete within 1000 ms"));
}

TEST(AgentService, PastTheConnectionLimitANewClientIsToldTheLimitAndClosed) {
  AgentFixture agent(quiet({"--max-clients", "3"}));
  ASSERT_TRUE(agent.ready());
  agent.storeFile("docs/readme.txt", "service copy\n");
  std::list<AgentConnection> served;
  for (int i = 0; i < 3; ++i) {
    served.emplace_back(agent.socketPath());
    EXPECT_NE(std::string::npos,
              served.back().ask({"tarn.metadata", kSvc, "docs/readme.txt"}).find("\"Size\":13"));
  }
  const std::string refusal = "-ERR max number of clients reached (--max-clients 3)";
  {
    AgentConnection extra(agent.socketPath());
    EXPECT_EQ(refusal, extra.reply(5000));
    EXPECT_TRUE(extra.closedByPeer(5000));
  }
  {
    // One that sends its request at once reads the same answer.
    AgentConnection eager(agent.socketPath());
    eager.send({"tarn.metadata", kSvc, "docs/readme.txt"});
    EXPECT_EQ(refusal, eager.reply(5000));
    EXPECT_TRUE(eager.closedByPeer(5000));
  }
  {
    // One that sends its request only after the answer came still reads it:
    // the agent waits for the client to close before it closes.
    AgentConnection late(agent.socketPath());
    EXPECT_TRUE(late.waitReadable(5000));
    EXPECT_TRUE(late.send({"tarn.metadata", kSvc, "docs/readme.txt"}));
    EXPECT_EQ(refusal, late.reply(5000));
    EXPECT_TRUE(late.closedByPeer(5000));
  }
  EXPECT_EQ(3u, linesWith(agent.agentLog(), "refused a connection from pid " +
                                                std::to_string(::getpid()) +
                                                ": max number of clients reached (3)"));
  // The limit counts connections open now.
  served.pop_front();
  std::string meta;
  for (const auto until = Clock::now() + std::chrono::seconds(10);
       meta.find("\"Size\":13") == std::string::npos && Clock::now() < until;) {
    AgentConnection next(agent.socketPath());
    meta = next.ask({"tarn.metadata", kSvc, "docs/readme.txt"});
  }
  EXPECT_NE(std::string::npos, meta.find("\"Size\":13")) << meta;
}

// Each limit as the library meets it: the call fails with its usual status
// and the client's log has a line with the agent's answer, which names the
// limit. (A request half sent is not among them: the library writes every
// request whole.)
TEST(AgentService, EachLimitLeavesALineNamingItInTheClientLog) {
  LogCapture log;
  std::list<std::string> entries;
  {
    AgentFixture agent(quiet({"--max-request-bytes", "1024", "--max-reply-bytes", "1024"}));
    ASSERT_TRUE(agent.ready());
    makeDirs(agent.store() + "/many");
    for (int i = 0; i < 100; ++i) {
      writeFile(agent.store() + "/many/a-file-with-a-longer-name-" + std::to_string(i), "");
    }
    VEL::TarnClient tooLong(VEL::TarnConnOptions(), agent.socketPath());
    ASSERT_EQ(0, tooLong.connect(1));
    // Its path alone is above the request cap.
    EXPECT_EQ(-6, tooLong.TarnListFile(std::string(2000, 'p'), "false", entries));
    EXPECT_TRUE(
        log.contains("[VEL] uploadlocal: Failed to upload object. ERR Protocol error: "
                     "request too large, ppp"))
        << log.text();
    VEL::TarnClient tooMany(VEL::TarnConnOptions(), agent.socketPath());
    ASSERT_EQ(0, tooMany.connect(1));
    EXPECT_EQ(-6, tooMany.TarnListFile("many", "false", entries));
    EXPECT_TRUE(
        log.contains("[VEL] uploadlocal: Failed to upload object. ERR reply too large, many"))
        << log.text();
  }
  AgentFixture agent(quiet({"--max-clients", "1"}));
  ASSERT_TRUE(agent.ready());
  agent.storeFile("docs/readme.txt", "service copy\n");
  // The agent holds one connection; the library's is the second.
  AgentConnection holder(agent.socketPath());
  ASSERT_EQ("*\ndocs/", holder.ask({"tarn.dir", kSvc, "", "false"}));
  VEL::TarnClient client(VEL::TarnConnOptions(), agent.socketPath());
  ASSERT_EQ(0, client.connect(1));
  EXPECT_EQ(-6, client.TarnDownloadLocal("docs/readme.txt", ""));
  EXPECT_TRUE(
      log.contains("[VEL] downloadlocal: Failed to download object. ERR max number of "
                   "clients reached (--max-clients 1), docs/readme.txt"))
      << log.text();
  EXPECT_TRUE(entries.empty());
}

}  // namespace
