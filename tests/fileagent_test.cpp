// The reference file agent through a raw hiredis connection: the effect of
// each command on the store and the mirror, the journal, the reply rules,
// concurrent clients, malformed input, refused paths and shutdown.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/agent_fixture.h"
#include "support/run_process.h"
#include "support/temp_dir.h"

namespace {

using veltest::AgentFixture;
using Args = std::vector<std::string>;

// One reply, copied out of hiredis.
struct Answer {
  bool none = true;  // no reply: the connection failed or was closed
  int type = 0;
  std::string str;
  long long integer = 0;
  std::vector<std::string> items;
  bool is(int t, const std::string& text) const { return !none && type == t && str == text; }
  bool ok() const { return is(REDIS_REPLY_STATUS, "OK"); }
  bool error() const { return !none && type == REDIS_REPLY_ERROR; }
};

class Connection {
 public:
  explicit Connection(const std::string& socket) {
    struct timeval timeout = {10, 0};
    ctx_ = redisConnectUnixWithTimeout(socket.c_str(), timeout);
    if (ctx_ != nullptr && ctx_->err == 0) {
      redisSetTimeout(ctx_, timeout);
    }
  }
  ~Connection() {
    if (ctx_ != nullptr) {
      redisFree(ctx_);
    }
  }
  bool connected() const { return ctx_ != nullptr && ctx_->err == 0; }

  Answer send(const Args& args) {
    Answer answer;
    if (!connected()) {
      return answer;
    }
    std::vector<const char*> argv;
    std::vector<size_t> lengths;
    for (const std::string& arg : args) {
      argv.push_back(arg.data());
      lengths.push_back(arg.size());
    }
    auto* reply = static_cast<redisReply*>(
        redisCommandArgv(ctx_, static_cast<int>(argv.size()), argv.data(), lengths.data()));
    if (reply == nullptr) {
      return answer;
    }
    answer.none = false;
    answer.type = reply->type;
    if (reply->str != nullptr) {
      answer.str.assign(reply->str, reply->len);
    }
    answer.integer = reply->integer;
    for (size_t i = 0; i < reply->elements; ++i) {
      answer.items.emplace_back(reply->element[i]->str ? reply->element[i]->str : "<no text>");
    }
    freeReplyObject(reply);
    return answer;
  }

 private:
  redisContext* ctx_ = nullptr;
};

// Sends raw bytes on a fresh socket and returns everything the agent sends
// back until it closes the connection; "<still open>" is appended when it
// has not closed it after `waitMs`.
std::string rawExchange(const std::string& socket, const std::string& bytes, int waitMs = 5000) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  struct sockaddr_un addr;
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, socket.c_str(), sizeof addr.sun_path - 1);
  std::string out;
  if (::connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0) {
    struct timeval timeout = {waitMs / 1000, (waitMs % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    if (::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
        static_cast<ssize_t>(bytes.size())) {
      char buffer[4096];
      ssize_t n;
      while ((n = ::recv(fd, buffer, sizeof buffer, 0)) > 0) {
        out.append(buffer, static_cast<size_t>(n));
      }
      if (n < 0) {
        out += "<still open>";
      }
    }
  }
  ::close(fd);
  return out;
}

const std::string kSvc = "TestService";

TEST(FileAgent, MetadataDescribesFilesAndFoldersAndJournalsEachRequest) {
  AgentFixture agent;
  ASSERT_TRUE(agent.ready());
  veltest::makeDirs(agent.store() + "/a/sub");
  veltest::writeFile(agent.store() + "/a/f.txt", "12345");
  ::chmod((agent.store() + "/a/f.txt").c_str(), 0604);
  ::chmod((agent.store() + "/a/sub").c_str(), 0711);
  Connection c(agent.socketPath());
  ASSERT_TRUE(c.connected());

  Answer file = c.send({"tarn.metadata", kSvc, "a/f.txt"});
  ASSERT_EQ(file.type, REDIS_REPLY_STRING);
  struct stat st;
  ASSERT_EQ(::stat((agent.store() + "/a/f.txt").c_str(), &st), 0);
  struct tm parts;
  localtime_r(&st.st_mtime, &parts);
  char when[64];
  strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%S%z", &parts);
  EXPECT_NE(file.str.find("\"Name\":\"f.txt\""), std::string::npos) << file.str;
  EXPECT_NE(file.str.find("\"Kind\":\"file\""), std::string::npos) << file.str;
  EXPECT_NE(file.str.find("\"Size\":5"), std::string::npos) << file.str;
  EXPECT_NE(file.str.find("\"mode\":388"), std::string::npos) << file.str;
  EXPECT_NE(file.str.find(std::string("\"LastModifiedTime\":\"") + when + "\""), std::string::npos)
      << file.str;
  EXPECT_NE(file.str.find("\"AccessAllowRoles\":"), std::string::npos) << file.str;

  Answer dir = c.send({"tarn.metadata", kSvc, "a/sub"});
  EXPECT_NE(dir.str.find("\"Kind\":\"dir\""), std::string::npos) << dir.str;
  EXPECT_NE(dir.str.find("\"mode\":457"), std::string::npos) << dir.str;
  EXPECT_EQ(dir.str.find("\"Size\""), std::string::npos) << dir.str;

  EXPECT_TRUE(c.send({"tarn.metadata", kSvc, "a/none"}).is(REDIS_REPLY_STRING, "file not found"));

  // Each request is in the journal by the time its answer arrives.
  std::vector<Args> journal = agent.journal();
  ASSERT_EQ(journal.size(), 3u);
  EXPECT_EQ(journal[0], (Args{"tarn.metadata", kSvc, "a/f.txt"}));
  EXPECT_EQ(journal[2], (Args{"tarn.metadata", kSvc, "a/none"}));
  agent.clearJournal();
  c.send({"tarn.dir", kSvc, "", "false"});
  EXPECT_EQ(agent.journal(), (std::vector<Args>{{"tarn.dir", kSvc, "", "false"}}));
}

TEST(FileAgent, DirListsChildrenInNameOrder) {
  AgentFixture agent;
  ASSERT_TRUE(agent.ready());
  veltest::makeDirs(agent.store() + "/d/b");
  veltest::writeFile(agent.store() + "/d/c", "");
  veltest::writeFile(agent.store() + "/d/a", "");
  veltest::writeFile(agent.store() + "/top", "");
  Connection c(agent.socketPath());
  Answer sub = c.send({"tarn.dir", kSvc, "d", "false"});
  ASSERT_EQ(sub.type, REDIS_REPLY_ARRAY);
  EXPECT_EQ(sub.items, (Args{"d/a", "d/b/", "d/c"}));
  EXPECT_EQ(c.send({"tarn.dir", kSvc, "", "false"}).items, (Args{"d/", "top"}));
  EXPECT_EQ(c.send({"tarn.dir", kSvc, "d/b", "false"}).type, REDIS_REPLY_ARRAY);
  EXPECT_TRUE(c.send({"tarn.dir", kSvc, "d/b", "false"}).items.empty());
  EXPECT_TRUE(c.send({"tarn.dir", kSvc, "missing", "false"}).error());
}

TEST(FileAgent, DownloadAndUploadCopyContentAndMode) {
  AgentFixture agent;
  ASSERT_TRUE(agent.ready());
  veltest::makeDirs(agent.store() + "/x");
  veltest::writeFile(agent.store() + "/x/data", "from the service");
  ::chmod((agent.store() + "/x/data").c_str(), 0640);
  Connection c(agent.socketPath());

  // The mirror folder must exist before a download.
  Answer noParent = c.send({"tarn.downloadlocal", kSvc, "x/data"});
  EXPECT_FALSE(noParent.ok());
  EXPECT_FALSE(veltest::pathExists(agent.mirror() + "/x/data"));
  veltest::makeDirs(agent.mirror() + "/x");
  veltest::writeFile(agent.mirror() + "/x/data", "an old and longer local copy");
  EXPECT_TRUE(c.send({"tarn.downloadlocal", kSvc, "x/data"}).ok());
  EXPECT_EQ(veltest::readFile(agent.mirror() + "/x/data"), "from the service");
  EXPECT_EQ(veltest::permissionsOf(agent.mirror() + "/x/data"), 0640);
  EXPECT_TRUE(c.send({"tarn.downloadlocal", kSvc, "x/data", "extra"}).ok());
  EXPECT_TRUE(
      c.send({"tarn.downloadlocal", kSvc, "x/none"}).is(REDIS_REPLY_STRING, "file not found"));

  veltest::makeDirs(agent.mirror() + "/new/deep");
  veltest::writeFile(agent.mirror() + "/new/deep/up", "written locally");
  ::chmod((agent.mirror() + "/new/deep/up").c_str(), 0600);
  EXPECT_TRUE(c.send({"tarn.uploadlocal", kSvc, "new/deep/up"}).ok());
  EXPECT_EQ(veltest::readFile(agent.store() + "/new/deep/up"), "written locally");
  EXPECT_EQ(veltest::permissionsOf(agent.store() + "/new/deep/up"), 0600);
  EXPECT_FALSE(c.send({"tarn.uploadlocal", kSvc, "new/none"}).ok());
}

TEST(FileAgent, NamespaceMutationsChangeTheStore) {
  AgentFixture agent;
  ASSERT_TRUE(agent.ready());
  const std::string s = agent.store();
  Connection c(agent.socketPath());

  EXPECT_TRUE(c.send({"tarn.createinfo", kSvc, "p/q/r", "dir"}).ok());
  EXPECT_TRUE(veltest::pathExists(s + "/p/q/r"));
  EXPECT_TRUE(c.send({"tarn.createinfo", kSvc, "p/q/r", "dir"}).ok());
  veltest::writeFile(s + "/p/file", "x");
  EXPECT_FALSE(c.send({"tarn.createinfo", kSvc, "p/file/below", "dir"}).ok());

  EXPECT_TRUE(c.send({"tarn.move", kSvc, "p/file", "p/q/moved"}).ok());
  EXPECT_EQ(veltest::readFile(s + "/p/q/moved"), "x");
  EXPECT_FALSE(veltest::pathExists(s + "/p/file"));
  EXPECT_TRUE(c.send({"tarn.move_cache", kSvc, "p/q/moved", "p/back"}).ok());
  EXPECT_EQ(veltest::readFile(s + "/p/back"), "x");
  EXPECT_FALSE(c.send({"tarn.move", kSvc, "p/gone", "p/other"}).ok());

  EXPECT_TRUE(c.send({"tarn.chmod", kSvc, "416", "p/back"}).ok());
  EXPECT_EQ(veltest::permissionsOf(s + "/p/back"), 0640);
  EXPECT_FALSE(c.send({"tarn.chmod", kSvc, "0x1ff", "p/back"}).ok());
  EXPECT_FALSE(c.send({"tarn.chmod", kSvc, "420", "p/none"}).ok());

  Answer notEmpty = c.send({"tarn.remove", kSvc, "p", "false"});
  EXPECT_FALSE(notEmpty.ok());
  EXPECT_FALSE(notEmpty.none);
  EXPECT_TRUE(veltest::pathExists(s + "/p/back"));
  EXPECT_TRUE(c.send({"tarn.remove", kSvc, "p/back", "false"}).ok());
  EXPECT_FALSE(veltest::pathExists(s + "/p/back"));
  EXPECT_TRUE(c.send({"tarn.remove", kSvc, "p/back", "false"}).ok());
  EXPECT_TRUE(c.send({"tarn.remove", kSvc, "p/q/r", "false"}).ok());
  EXPECT_TRUE(c.send({"tarn.remove", kSvc, "p", "true"}).ok());
  EXPECT_FALSE(veltest::pathExists(s + "/p"));
  EXPECT_TRUE(veltest::pathExists(s));
  EXPECT_FALSE(c.send({"tarn.remove", kSvc, "p", "maybe"}).ok());
}

TEST(FileAgent, HandlesReadAndWriteStoreFiles) {
  AgentFixture agent;
  ASSERT_TRUE(agent.ready());
  Connection c(agent.socketPath());
  Answer w = c.send({"tarn.create", kSvc, "h.txt", "w"});
  ASSERT_FALSE(w.str.empty());
  ASSERT_FALSE(w.error()) << w.str;
  EXPECT_TRUE(c.send({"tarn.write", w.str, "hello ", kSvc}).ok());
  // A handle outlives the connection that opened it.
  Connection other(agent.socketPath());
  EXPECT_TRUE(other.send({"tarn.write", w.str, "world", kSvc}).ok());
  EXPECT_TRUE(c.send({"tarn.close", kSvc, w.str}).ok());
  EXPECT_EQ(veltest::readFile(agent.store() + "/h.txt"), "hello world");
  EXPECT_FALSE(c.send({"tarn.close", kSvc, w.str}).ok());
  EXPECT_FALSE(c.send({"tarn.write", w.str, "late", kSvc}).ok());

  Answer r = c.send({"tarn.create", kSvc, "h.txt", "r"});
  ASSERT_FALSE(r.error()) << r.str;
  EXPECT_NE(r.str, w.str);
  EXPECT_TRUE(c.send({"tarn.read", r.str, "6", "3", kSvc}).is(REDIS_REPLY_STRING, "wor"));
  EXPECT_TRUE(c.send({"tarn.read", r.str, "9", "100", kSvc}).is(REDIS_REPLY_STRING, "ld"));
  EXPECT_TRUE(c.send({"tarn.read", r.str, "-1", "3", kSvc}).error());
  EXPECT_TRUE(c.send({"tarn.close", kSvc, r.str}).ok());
  EXPECT_TRUE(c.send({"tarn.create", kSvc, "absent", "r"}).error());
  EXPECT_TRUE(c.send({"tarn.create", kSvc, "h.txt", "rw?"}).error());
}

TEST(FileAgent, RulesAnswerMatchingRequestsWithEveryKind) {
  AgentFixture agent(R"([{"match": ["tarn.move"], "reply": ["status", "ok"]}])");
  ASSERT_TRUE(agent.ready());
  Connection c(agent.socketPath());
  EXPECT_TRUE(c.send({"tarn.move", kSvc, "a", "b"}).is(REDIS_REPLY_STATUS, "ok"));
  EXPECT_FALSE(c.send({"tarn.dir", kSvc, "", "false"}).error());

  agent.setRules(R"([
    {"match": ["tarn.metadata", "TestService", "b"], "reply": ["bulk", "{\"deep\":1}"]},
    {"match": ["tarn.metadata"], "reply": ["error", "ERR injected"]},
    {"match": ["tarn.dir"], "reply": ["array", ["x", "y/"]]},
    {"match": ["tarn.chmod"], "reply": ["int", 42]},
    {"match": ["tarn.remove"], "reply": ["nil"]},
    {"match": ["tarn.create"], "reply": ["close"]},
    {"match": ["tarn.uploadlocal"], "reply": ["status", "OK"], "delay_ms": 400},
    {"match": ["tarn.createinfo"], "delay_ms": 300}
  ])");
  EXPECT_TRUE(c.send({"tarn.metadata", kSvc, "b"}).is(REDIS_REPLY_STRING, "{\"deep\":1}"));
  EXPECT_TRUE(c.send({"tarn.metadata", kSvc, "a"}).is(REDIS_REPLY_ERROR, "ERR injected"));
  EXPECT_EQ(c.send({"tarn.dir", kSvc, "", "false"}).items, (Args{"x", "y/"}));
  Answer number = c.send({"tarn.chmod", kSvc, "1", "z"});
  EXPECT_EQ(number.type, REDIS_REPLY_INTEGER);
  EXPECT_EQ(number.integer, 42);
  EXPECT_EQ(c.send({"tarn.remove", kSvc, "z", "false"}).type, REDIS_REPLY_NIL);

  auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(c.send({"tarn.uploadlocal", kSvc, "never"}).ok());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(400));
  // A rule without a reply only delays; the request is then served.
  start = std::chrono::steady_clock::now();
  EXPECT_TRUE(c.send({"tarn.createinfo", kSvc, "made", "dir"}).ok());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
  EXPECT_TRUE(veltest::pathExists(agent.store() + "/made"));

  EXPECT_TRUE(c.send({"tarn.create", kSvc, "f", "w"}).none);
  EXPECT_FALSE(c.connected());
  EXPECT_EQ(agent.journal().back(), (Args{"tarn.create", kSvc, "f", "w"}));

  agent.setRules("");
  Connection again(agent.socketPath());
  EXPECT_TRUE(again.send({"tarn.metadata", kSvc, "a"}).is(REDIS_REPLY_STRING, "file not found"));
}

TEST(FileAgent, ServesConcurrentClientsAndADelayDoesNotBlockOthers) {
  AgentFixture agent(R"([{"match": ["tarn.metadata", "TestService", "slow"],
                          "reply": ["bulk", "late"], "delay_ms": 4000}])");
  ASSERT_TRUE(agent.ready());
  std::atomic<bool> slowDone{false};
  std::thread slow([&] {
    Connection c(agent.socketPath());
    EXPECT_TRUE(c.send({"tarn.metadata", kSvc, "slow"}).is(REDIS_REPLY_STRING, "late"));
    slowDone = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  constexpr int kThreads = 8;
  constexpr int kRounds = 25;
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      Connection c(agent.socketPath());
      for (int i = 0; i < kRounds; ++i) {
        std::string dir = "t" + std::to_string(t) + "/n" + std::to_string(i);
        if (c.send({"tarn.createinfo", kSvc, dir, "dir"}).ok() &&
            c.send({"tarn.metadata", kSvc, dir}).str.find("\"Kind\":\"dir\"") !=
                std::string::npos) {
          ++good;
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_FALSE(slowDone.load()) << "the other clients waited for the delayed one";
  slow.join();
  EXPECT_EQ(good.load(), kThreads * kRounds);
  EXPECT_EQ(agent.journal().size(), 1u + 2u * kThreads * kRounds);
}

TEST(FileAgent, MalformedInputGetsAnErrorAndNeverStopsTheAgent) {
  AgentFixture agent;
  ASSERT_TRUE(agent.ready());
  const std::string sock = agent.socketPath();
  const std::vector<std::string> broken = {
      "PING\r\n",                 // inline command
      "\x01\x02garbage\xff\r\n",  // no RESP at all
      "*99999999999\r\n",         // absurd element count
      "*2000000000\r\n",          // huge but in range of int
      "*-5\r\n",                  // negative count
      "*1\r\n$abc\r\n",           // bad bulk length
      "*1\r\n:12\r\n",            // an integer argument
      "*1\r\n*1\r\n$1\r\nx\r\n",  // nested array
      "+OK\r\n",                  // a status, not a request
      "*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n$1\r\nx\r\n",  // too deep
      "*0\r\n",                                                                   // empty request
  };
  for (const std::string& bytes : broken) {
    std::string answer = rawExchange(sock, bytes);
    EXPECT_EQ(answer.substr(0, 1), "-") << "input " << bytes << " answered " << answer;
    EXPECT_EQ(answer.find("<still open>"), std::string::npos) << answer;
  }
  // A request cut short is waited for, not answered.
  EXPECT_EQ(rawExchange(sock, "*2\r\n$4\r\ntarn", 300), "<still open>");

  Connection c(sock);
  Answer arity = c.send({"tarn.metadata", kSvc});
  EXPECT_TRUE(arity.error());
  EXPECT_NE(arity.str.find("wrong number of arguments"), std::string::npos) << arity.str;
  EXPECT_TRUE(c.send({"tarn.dir", kSvc, "", "false", "more"}).error());
  EXPECT_TRUE(c.send({"tarn.unknown", kSvc}).error());
  EXPECT_TRUE(c.send({"tarn.metadata", "OtherService", ""}).error());
  EXPECT_TRUE(c.send({"tarn.read", "h", "0", "1", "OtherService"}).error());
  // The same connection is still served after those refusals.
  EXPECT_TRUE(c.send({"tarn.createinfo", kSvc, "alive", "dir"}).ok());
  EXPECT_TRUE(veltest::pathExists(agent.store() + "/alive"));
}

TEST(FileAgent, PathsLeavingTheStoreOrMirrorAreRefused) {
  AgentFixture agent;
  ASSERT_TRUE(agent.ready());
  veltest::writeFile(agent.root() + "/outside", "keep");
  veltest::makeDirs(agent.store() + "/in");
  Connection c(agent.socketPath());
  const std::vector<Args> attempts = {
      {"tarn.metadata", kSvc, "../outside"},
      {"tarn.metadata", kSvc, agent.root() + "/outside"},
      {"tarn.dir", kSvc, "..", "false"},
      {"tarn.downloadlocal", kSvc, "in/../../outside"},
      {"tarn.uploadlocal", kSvc, "../outside"},
      {"tarn.remove", kSvc, "../outside", "true"},
      {"tarn.remove", kSvc, "", "true"},
      {"tarn.move", kSvc, "../outside", "in/stolen"},
      {"tarn.move", kSvc, "in", "../../escaped"},
      {"tarn.chmod", kSvc, "0", "../outside"},
      {"tarn.createinfo", kSvc, "../made", "dir"},
      {"tarn.create", kSvc, "../outside", "w"},
  };
  for (const Args& args : attempts) {
    Answer a = c.send(args);
    EXPECT_TRUE(a.error()) << args[0] << " " << args[2] << " answered " << a.str;
    EXPECT_NE(a.str.find("refused"), std::string::npos) << a.str;
  }
  EXPECT_EQ(veltest::readFile(agent.root() + "/outside"), "keep");
  EXPECT_EQ(veltest::permissionsOf(agent.root() + "/outside") & 0600, 0600);
  EXPECT_TRUE(veltest::pathExists(agent.store() + "/in"));
  EXPECT_FALSE(veltest::pathExists(agent.root() + "/made"));
}

TEST(FileAgent, SigtermStopsCleanlyAndRemovesTheSocket) {
  AgentFixture agent(R"([{"match": ["tarn.dir"], "delay_ms": 60000}])");
  ASSERT_TRUE(agent.ready());
  ASSERT_TRUE(veltest::pathExists(agent.socketPath()));
  // A client waiting on a long delay does not hold up the stop.
  std::thread waiting([&] {
    Connection c(agent.socketPath());
    EXPECT_TRUE(c.send({"tarn.dir", kSvc, "", "false"}).none);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  auto start = std::chrono::steady_clock::now();
  agent.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  waiting.join();
  EXPECT_EQ(agent.exitStatus(), 0);
  EXPECT_FALSE(veltest::pathExists(agent.socketPath()));
  agent.stop();  // again: nothing happens
}

TEST(FileAgent, StopsEvenWhenStartedWithTheStopSignalsBlocked) {
  // A child inherits its parent's signal mask across exec: the agent must
  // unblock its stop signals itself, or a launcher that blocks them would
  // leave an agent that ignores SIGTERM.
  sigset_t stops;
  sigset_t old;
  sigemptyset(&stops);
  sigaddset(&stops, SIGTERM);
  sigaddset(&stops, SIGINT);
  ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &stops, &old));
  std::unique_ptr<AgentFixture> agent(new AgentFixture());
  ASSERT_EQ(0, pthread_sigmask(SIG_SETMASK, &old, nullptr));
  ASSERT_TRUE(agent->ready());
  auto start = std::chrono::steady_clock::now();
  agent->stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(agent->exitStatus(), 0);
  EXPECT_FALSE(veltest::pathExists(agent->socketPath()));
}

TEST(FileAgent, DefaultSocketIsBelowUdsRootAndHelpListsTheOptions) {
  veltest::TempDir dir;
  veltest::makeDirs(dir.sub("store"));
  const std::string socket = dir.sub("uds/velfileagent/velfileagent.sock");
  pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    ::setenv("UDS_ROOT_OSSUSER", dir.sub("uds").c_str(), 1);
    ::setenv("TARN_ROOT_DIR", dir.sub("mirror").c_str(), 1);
    ::execl(VEL_AGENT_BIN, VEL_AGENT_BIN, "--store", dir.sub("store").c_str(),
            static_cast<char*>(nullptr));
    _exit(127);
  }
  for (int i = 0; i < 300 && !veltest::pathExists(socket); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_TRUE(veltest::pathExists(socket));
  {
    // Downloads go to the mirror named by TARN_ROOT_DIR.
    veltest::writeFile(dir.sub("store/f"), "v");
    veltest::makeDirs(dir.sub("mirror"));
    Connection c(socket);
    EXPECT_TRUE(c.send({"tarn.downloadlocal", kSvc, "f"}).ok());
    EXPECT_EQ(veltest::readFile(dir.sub("mirror/f")), "v");
  }
  ::kill(pid, SIGINT);
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_FALSE(veltest::pathExists(socket));

  veltest::ProcessResult help = veltest::runProcess({VEL_AGENT_BIN, "--help"});
  EXPECT_EQ(help.status, 0);
  for (const char* option : {"--store", "--mirror", "--socket", "--journal", "--rules",
                             "UDS_ROOT_OSSUSER", "TARN_ROOT_DIR", "delay_ms"}) {
    EXPECT_NE(help.out.find(option), std::string::npos) << option;
  }
  EXPECT_NE(veltest::runProcess({VEL_AGENT_BIN, "--bogus"}).status, 0);
  EXPECT_NE(veltest::runProcess({VEL_AGENT_BIN, "--mirror", "/tmp"}).status, 0);
}

}  // namespace
