// The agent connection against the reference agent: the exact wire form of
// every command (through the agent's journal), its output, and the replies
// that count as failures.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/agent_fixture.h"
#include "support/fake_client.h"
#include "vel/records.h"
#include "vel/tarn_client.h"

namespace {

using Args = std::vector<std::string>;
using veltest::ScopedEnv;

// A "VmHWM" (peak) or "VmRSS" figure of this process, in kB; -1 if absent.
long residentKb(const std::string& key) {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, key.size() + 1, key + ":") == 0) {
      return std::stol(line.substr(key.size() + 1));
    }
  }
  return -1;
}

class TarnClientTest : public ::testing::Test {
 protected:
  std::unique_ptr<VEL::TarnClient> connected() {
    auto client = std::make_unique<VEL::TarnClient>(VEL::TarnConnOptions(), agent_.socketPath());
    EXPECT_EQ(0, client->connect(1));
    return client;
  }

  veltest::LogCapture log_;
  veltest::AgentFixture agent_;
};

TEST_F(TarnClientTest, EveryCommandSendsItsExactArgumentsAndPrintsItsLine) {
  ASSERT_TRUE(agent_.ready());
  agent_.setRules(R"([{"match":[],"reply":["status","OK"]}])");
  auto c = connected();
  VEL::TarnMetaData meta;
  std::list<std::string> entries;
  testing::internal::CaptureStdout();
  // clang-format off
  const std::vector<int32_t> statuses = {
      c->TarnCreateFileHandle("n", "w") == "OK" ? 0 : 1, c->TarnCloseFileHandle("h1"),
      c->TarnRead("h1", 5, 10),           c->TarnWrite("h1", "data"),
      c->TarnRemoveFile("a/b", "false"),  c->TarnUploadLocal("a/b", ""),
      c->TarnUploadLocal("a/b", "x"),     c->TarnDownloadLocal("a/b", ""),
      c->TarnDownloadLocal("a/b", "x"),   c->TarnCreateInfo("a", "dir"),
      c->TarnListFile("a", "false", entries), c->TarnMove("a", "b"),
      c->TarnGetMetaData("a b", meta),    c->TarnChmod("a/b", "493"),
      c->TarnFSRename("a", "b")};
  // clang-format on
  // A status is not a listing (-6), "OK" is no metadata (-1).
  EXPECT_EQ((std::vector<int32_t>{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, -6, 0, -1, 0, 0}), statuses);
  EXPECT_EQ(
      "close handle success!\n"
      "[TARN]upload file success[a/b]!\n[TARN]upload file success[a/b]!\n"
      "[TARN]download file success[a/b]!\n[TARN]download file success[a/b]!\n"
      "[TARN]createinfo success[a]!\nreply=OK, path=a\n"
      "[TARN]move file success[src=a, dest=b]!\nmetadata parse error\n"
      "[TARN]chmod success[path=a/b, mod=493]!\n",
      testing::internal::GetCapturedStdout());
  const std::string s = "TestService";  // the mode precedes the path in "tarn.chmod"
  // clang-format off
  EXPECT_EQ((std::vector<Args>{
                {"tarn.create", s, "n", "w"},          {"tarn.close", s, "h1"},
                {"tarn.read", "h1", "5", "10", s},     {"tarn.write", "h1", "data", s},
                {"tarn.remove", s, "a/b", "false"},    {"tarn.uploadlocal", s, "a/b"},
                {"tarn.uploadlocal", s, "a/b", "x"},   {"tarn.downloadlocal", s, "a/b"},
                {"tarn.downloadlocal", s, "a/b", "x"}, {"tarn.createinfo", s, "a", "dir"},
                {"tarn.dir", s, "a", "false"},         {"tarn.move", s, "a", "b"},
                {"tarn.metadata", s, "a b"},           {"tarn.chmod", s, "493", "a/b"},
                {"tarn.move_cache", s, "a", "b"}}),
            agent_.journal());
  // clang-format on
  EXPECT_TRUE(log_.contains("ERROR [VEL] uploadlocal: Failed to upload object. OK, a\n"));
  EXPECT_TRUE(log_.contains("ERROR [VEL] remove: success remove, a/b\n"));
  EXPECT_TRUE(log_.contains("ERROR [SHOWINFO] service is TestService, path is a/b\n"));
}

TEST_F(TarnClientTest, RefusedOddAndMissingRepliesAreFailures) {
  ASSERT_TRUE(agent_.ready());
  veltest::writeFile(agent_.store() + "/f.txt", "hello");
  const std::string deep = std::string(5000, '[') + std::string(5000, ']');
  agent_.setRules(
      std::string(R"([{"match":["tarn.move"],"reply":["status","ok"]},)") +
      R"({"match":["tarn.metadata","TestService","gone"],"reply":["bulk","file not found"]},)" +
      R"({"match":["tarn.metadata","TestService","deep"],"reply":["bulk",")" + deep + R"("]},)" +
      R"({"match":["tarn.createinfo"],"reply":["close"]}])");
  auto client = connected();
  VEL::TarnMetaData meta;
  testing::internal::CaptureStdout();
  EXPECT_EQ(0, client->TarnGetMetaData("f.txt", meta));
  EXPECT_EQ(5, meta.Size);
  EXPECT_EQ(-6, client->TarnMove("a", "b"));
  EXPECT_EQ(-19, client->TarnGetMetaData("gone", meta));
  EXPECT_EQ(-1, client->TarnGetMetaData("deep", meta));
  EXPECT_EQ("resp = ok\nmetadata parse error\n", testing::internal::GetCapturedStdout());
  EXPECT_TRUE(log_.contains("ERROR [VEL] move: Failed to move object. ok, a\n"));
  EXPECT_TRUE(log_.contains("ERROR [VEL] metadata not found. file not found, gone\n"));
  EXPECT_EQ(1u, log_.lines("Failed to parse metadata"));  // only the deep reply was parsed

  // The agent hangs up: -6, and the broken connection stays failed.
  EXPECT_EQ(-6, client->TarnCreateInfo("p", "dir"));
  EXPECT_EQ(-6, client->TarnFSRename("a", "b"));
  EXPECT_TRUE(log_.contains("ERROR [VEL] TarnCreateInfo:Internal Error: null reply.\n"));

  VEL::TarnClient absent(VEL::TarnConnOptions(), agent_.root() + "/no.sock");
  EXPECT_EQ(-6, absent.connect(1));
  EXPECT_TRUE(log_.contains("ERROR [VEL] Connection error: "));
}

// Every gap between two bytes is shorter than the time-out, but no whole
// reply arrives within it: the time-out bounds the command, not each read.
TEST_F(TarnClientTest, ATricklingAgentEndsEachCommandAtItsDeadline) {
  ASSERT_TRUE(agent_.ready());
  agent_.setRules(
      R"([{"match":["tarn.move"],"reply":["status","OK"],"trickle_ms":300},)"
      R"({"match":["tarn.metadata"],"reply":["bulk","file not found"],"trickle_ms":150},)"
      R"({"match":["tarn.dir"],"reply":["array",["a","b"]],"trickle_ms":150},)"
      R"({"match":["tarn.create"],"reply":["bulk","h1"],"trickle_ms":300}])");
  ScopedEnv timeout("TARN_TIME_OUT", "500");
  VEL::TarnMetaData meta;
  std::list<std::string> entries;
  const struct {
    const char* method;
    std::function<int32_t(VEL::TarnClient&)> run;
  } commands[] = {
      {"TarnMove", [](VEL::TarnClient& c) { return c.TarnMove("a", "b"); }},
      {"TarnGetMetaData", [&](VEL::TarnClient& c) { return c.TarnGetMetaData("f", meta); }},
      {"TarnListFile", [&](VEL::TarnClient& c) { return c.TarnListFile("d", "false", entries); }},
      {"TarnCreateFileHandle",
       [](VEL::TarnClient& c) { return c.TarnCreateFileHandle("n", "w").empty() ? -6 : 0; }},
  };
  testing::internal::CaptureStdout();
  for (const auto& command : commands) {
    auto client = connected();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(-6, command.run(*client)) << command.method;
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(450)) << command.method;
    EXPECT_LT(elapsed, std::chrono::milliseconds(3000)) << command.method;
    EXPECT_TRUE(log_.contains(std::string("ERROR [VEL] ") + command.method +
                              ":Internal Error: null reply.\n"));
  }
  EXPECT_TRUE(entries.empty());
  EXPECT_EQ("", testing::internal::GetCapturedStdout());

  // The rest of an abandoned reply is never read as the next one's.
  auto client = connected();
  EXPECT_EQ(-6, client->TarnMove("a", "b"));
  agent_.setRules("");
  EXPECT_EQ(-6, client->TarnMove("a", "b"));
}

// An agent announcing a 2 GiB text or 1.5 billion elements: refused on the
// header, not after a time-out, and nothing is allocated for it.
TEST_F(TarnClientTest, RepliesAnnouncedOverTheCapsFailAtOnce) {
  ASSERT_TRUE(agent_.ready());
  agent_.setRules(R"([{"match":["tarn.metadata"],"reply":["raw","$2147483648\r\n"]},)"
                  R"({"match":["tarn.dir"],"reply":["raw","*1555555555\r\n"]}])");
  ScopedEnv timeout("TARN_TIME_OUT", "5000");
  const long peakBefore = residentKb("VmHWM");
  const long rssBefore = residentKb("VmRSS");
  ASSERT_GT(peakBefore, 0);
  VEL::TarnMetaData meta;
  std::list<std::string> entries;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(-6, connected()->TarnGetMetaData("f", meta));
  EXPECT_EQ(-6, connected()->TarnListFile("d", "false", entries));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2000));
  EXPECT_LT(residentKb("VmHWM") - peakBefore, 100 * 1024);
  EXPECT_LT(residentKb("VmRSS") - rssBefore, 100 * 1024);
  EXPECT_TRUE(log_.contains("ERROR [VEL] TarnGetMetaData:Internal Error: null reply.\n"));
  EXPECT_TRUE(log_.contains("ERROR [VEL] TarnListFile:Internal Error: null reply.\n"));
}

// A listening socket at `path` for tests that play the agent themselves.
int listenAt(const std::string& path) {
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(listener, 4) != 0) {
    ::close(listener);
    return -1;
  }
  return listener;
}

// The bytes of one request as `call` sends it (up to `size` bytes, or what
// came within five seconds), answered with "+OK".
std::string bytesSent(const std::function<void(VEL::TarnClient&)>& call, size_t size) {
  veltest::TempDir dir;
  const std::string path = dir.sub("agent.sock");
  const int listener = listenAt(path);
  std::string received;
  std::thread agent([&] {
    const int peer = ::accept(listener, nullptr, nullptr);
    char buffer[4096];
    pollfd ready{peer, POLLIN, 0};
    while (received.size() < size && ::poll(&ready, 1, 5000) == 1) {
      const ssize_t n = ::read(peer, buffer, sizeof(buffer));
      if (n <= 0) {
        break;
      }
      received.append(buffer, static_cast<size_t>(n));
    }
    ssize_t sent = ::write(peer, "+OK\r\n", 5);
    (void)sent;
    ::close(peer);
  });
  VEL::TarnClient client(VEL::TarnConnOptions(), path);
  if (client.connect(1) == 0) {
    testing::internal::CaptureStdout();
    call(client);
    testing::internal::GetCapturedStdout();
  }
  agent.join();
  ::close(listener);
  return received;
}

// What hiredis writes for `format` and its arguments.
template <typename... Args>
std::string hiredisForm(const char* format, Args... args) {
  char* command = nullptr;
  const int length = redisFormatCommand(&command, format, args...);
  std::string bytes(command, static_cast<size_t>(length));
  redisFreeCommand(command);
  return bytes;
}

// Byte for byte what hiredis writes for the command's format, for arguments
// that are empty, hold blanks, a NUL (cut there, as "%s" reads it), UTF-8,
// or are long enough for a length of several digits.
TEST(TarnClientWire, RequestsAreByteForByteWhatHiredisWritesForTheCommandFormat) {
  veltest::LogCapture log;
  const std::string nul("before\0after", 12);
  const std::string utf8 = "\xe6\x96\x87 \xc3\xa9";
  const std::string longText(300, 'x');
  VEL::TarnMetaData meta;
  std::list<std::string> entries;
  struct Case {
    std::string expected;
    std::function<void(VEL::TarnClient&)> call;
  } cases[] = {
      {hiredisForm("tarn.move %s %s %s", "TestService", "a b", ""),
       [](VEL::TarnClient& c) { c.TarnMove("a b", ""); }},
      {hiredisForm("tarn.metadata %s %s", "TestService", "before"),
       [&](VEL::TarnClient& c) { c.TarnGetMetaData(nul, meta); }},
      {hiredisForm("tarn.read %s %d %d %s", "fh1", -5, 2147483647, "TestService"),
       [](VEL::TarnClient& c) { c.TarnRead("fh1", -5, 2147483647); }},
      {hiredisForm("tarn.write %s %s %s", "fh1", longText.c_str(), "TestService"),
       [&](VEL::TarnClient& c) { c.TarnWrite("fh1", longText); }},
      {hiredisForm("tarn.uploadlocal %s %s", "TestService", utf8.c_str()),
       [&](VEL::TarnClient& c) { c.TarnUploadLocal(utf8, ""); }},
      {hiredisForm("tarn.downloadlocal %s %s %s", "TestService", "%s %d", " "),
       [](VEL::TarnClient& c) { c.TarnDownloadLocal("%s %d", " "); }},
      {hiredisForm("tarn.chmod %s %s %s", "TestService", "420", "a/b"),
       [](VEL::TarnClient& c) { c.TarnChmod("a/b", "420"); }},
      {hiredisForm("tarn.dir %s %s %s", "TestService", "", "false"),
       [&](VEL::TarnClient& c) { c.TarnListFile("", "false", entries); }},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.expected, bytesSent(c.call, c.expected.size()));
  }
}

// An agent that hung up before the request: the request fails (-6) and the
// connection stays failed; the caller is not killed by SIGPIPE, whatever
// its disposition of the signal.
TEST(TarnClientHangUp, ARequestToAnAgentThatHungUpFailsWithoutASignal) {
  veltest::LogCapture log;
  veltest::TempDir dir;
  const std::string path = dir.sub("agent.sock");
  const int listener = listenAt(path);
  ASSERT_NE(-1, listener);
  struct sigaction fatal {};
  fatal.sa_handler = SIG_DFL;
  struct sigaction old {};
  ASSERT_EQ(0, ::sigaction(SIGPIPE, &fatal, &old));

  VEL::TarnClient client(VEL::TarnConnOptions(), path);
  ASSERT_EQ(0, client.connect(1));
  const int peer = ::accept(listener, nullptr, nullptr);
  ASSERT_NE(-1, peer);
  ::close(peer);
  testing::internal::CaptureStdout();
  EXPECT_EQ(-6, client.TarnMove("a", "b"));
  EXPECT_EQ(-6, client.TarnChmod("a", "420"));
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(log.contains("ERROR [VEL] TarnMove:Internal Error: null reply.\n"));
  EXPECT_TRUE(log.contains("ERROR [VEL] TarnChmod:Internal Error: null reply.\n"));
  ::sigaction(SIGPIPE, &old, nullptr);
  ::close(listener);
}

TEST(TarnClientTimeout, ComesFromTheOptionElseTheConfigurationAndIsNeverUnbounded) {
  struct Case {
    const char* env;  // "TARN_TIME_OUT", null when unset
    int32_t option;
    int32_t expected;
  } cases[] = {
      {nullptr, 0, 30000},      {"450", 0, 450},
      {"450", 120, 120},        {"4294967296000", 0, 30000},  // wraps to 0 in 32 bits
      {"3000000000", 0, 30000},                               // wraps below 0
  };
  for (const Case& c : cases) {
    ScopedEnv env("TARN_TIME_OUT", c.env);
    VEL::TarnConnOptions options;
    options.commandTimeoutMs = c.option;
    EXPECT_EQ(c.expected, VEL::TarnClient(options, "/nonexistent.sock").commandTimeoutMs())
        << (c.env != nullptr ? c.env : "(unset)") << " " << c.option;
  }
}

}  // namespace
