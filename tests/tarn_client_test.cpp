// The agent connection: reply interpretation on hand-made replies, and every
// command against the reference agent, checked through its journal.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "agent/tarn_reply.h"
#include "support/agent_fixture.h"
#include "support/temp_dir.h"
#include "vel/log.h"
#include "vel/records.h"
#include "vel/tarn_client.h"

namespace {

using veltest::ScopedEnv;
using veltest::TempDir;

// Logs into a fresh directory; log() returns what was written so far.
class LoggedTest : public ::testing::Test {
 protected:
  void SetUp() override {
    VEL::releaseLogger();
    env_ = std::make_unique<ScopedEnv>("_APP_LOG_DIR", logDir_.path().c_str());
  }
  void TearDown() override { VEL::releaseLogger(); }

  std::string log() {
    VEL::releaseLogger();
    return veltest::readFile(logDir_.sub("velsdk.log"));
  }
  bool logged(const std::string& message) {
    return log().find(" ERROR " + message + "\n") != std::string::npos;
  }

  TempDir logDir_;
  std::unique_ptr<ScopedEnv> env_;
};

// A reply as hiredis builds it, owning its text and elements.
struct FakeReply {
  explicit FakeReply(int type, std::string value = "") : text(std::move(value)) {
    std::memset(&reply, 0, sizeof(reply));
    reply.type = type;
    if (type == REDIS_REPLY_STRING || type == REDIS_REPLY_STATUS || type == REDIS_REPLY_ERROR) {
      reply.str = &text[0];
      reply.len = text.size();
    }
  }
  FakeReply& add(int type, const std::string& value = "") {
    children.push_back(std::make_unique<FakeReply>(type, value));
    pointers.push_back(&children.back()->reply);
    reply.element = pointers.data();
    reply.elements = pointers.size();
    return *this;
  }
  redisReply reply;
  std::string text;
  std::vector<std::unique_ptr<FakeReply>> children;
  std::vector<redisReply*> pointers;
};

using ReplyLogicTest = LoggedTest;

TEST_F(ReplyLogicTest, OnlyTheExactTextOkSucceeds) {
  using VEL::tarn::OkOutcome;
  struct Case {
    int type;
    const char* text;
    OkOutcome outcome;
  } cases[] = {
      {REDIS_REPLY_STATUS, "OK", OkOutcome::kOk},
      {REDIS_REPLY_STRING, "OK", OkOutcome::kOk},
      {REDIS_REPLY_STATUS, "ok", OkOutcome::kRefused},
      {REDIS_REPLY_STATUS, "OK ", OkOutcome::kRefused},
      {REDIS_REPLY_ERROR, "OK?", OkOutcome::kRefused},
      {REDIS_REPLY_STRING, "", OkOutcome::kRefused},
      {REDIS_REPLY_INTEGER, "", OkOutcome::kNullReply},
      {REDIS_REPLY_NIL, "", OkOutcome::kNullReply},
      {REDIS_REPLY_ARRAY, "", OkOutcome::kNullReply},
  };
  for (const auto& c : cases) {
    FakeReply r(c.type, c.text);
    EXPECT_EQ(c.outcome, VEL::tarn::classifyOk(&r.reply)) << c.type << " " << c.text;
  }
  EXPECT_EQ(OkOutcome::kNullReply, VEL::tarn::classifyOk(nullptr));
  FakeReply withNul(REDIS_REPLY_STRING, std::string("OK\0x", 4));
  EXPECT_EQ(OkOutcome::kRefused, VEL::tarn::classifyOk(&withNul.reply));
}

TEST_F(ReplyLogicTest, ListReplyCollectsTextsUntilTheFirstElementWithout) {
  FakeReply array(REDIS_REPLY_ARRAY);
  array.add(REDIS_REPLY_STRING, "d/a").add(REDIS_REPLY_STATUS, "d/b/");
  array.add(REDIS_REPLY_INTEGER).add(REDIS_REPLY_STRING, "d/never");
  std::list<std::string> entries{"kept"};
  testing::internal::CaptureStdout();
  EXPECT_EQ(0, VEL::tarn::collectListReply(&array.reply, "d", entries));
  EXPECT_EQ("d/a:\nd/b/:\n", testing::internal::GetCapturedStdout());
  EXPECT_EQ((std::list<std::string>{"kept", "d/a", "d/b/"}), entries);

  FakeReply empty(REDIS_REPLY_ARRAY);
  EXPECT_EQ(0, VEL::tarn::collectListReply(&empty.reply, "d", entries));
  EXPECT_EQ(3u, entries.size());

  // A status reply is refused with the upload command's message.
  FakeReply status(REDIS_REPLY_STATUS, "OK");
  testing::internal::CaptureStdout();
  EXPECT_EQ(-6, VEL::tarn::collectListReply(&status.reply, "d", entries));
  EXPECT_EQ("reply=OK, path=d\n", testing::internal::GetCapturedStdout());
  EXPECT_EQ(-6, VEL::tarn::collectListReply(nullptr, "d", entries));
  EXPECT_EQ(3u, entries.size());
  std::string text = log();
  EXPECT_NE(std::string::npos,
            text.find("ERROR [VEL] uploadlocal: Failed to upload object. OK, d\n"));
  EXPECT_NE(std::string::npos, text.find("ERROR [VEL] TarnListFile:Internal Error: null reply.\n"));
}

TEST_F(ReplyLogicTest, MetaDataReplies) {
  struct Case {
    int type;
    std::string text;
    int32_t status;
    int32_t mode;
    const char* out;      // stdout
    const char* message;  // a logged line
  } cases[] = {
      {REDIS_REPLY_STRING,
       R"({"Name":"f","Kind":"file","Size":12,"LastModifiedTime":"2024-01-02T03:04:05+0000",)"
       R"("AccessAllowRoles":"r","mode":420})",
       0, 420, "", "[TARN] TarnGetMetaData() "},
      {REDIS_REPLY_STRING, R"({"Name":"d","Kind":"dir"})", 0, -1, "", "[TARN] TarnGetMetaData() "},
      {REDIS_REPLY_STRING, R"({"Kind":"dir","mode":4294967295})", 0, -1, "", ""},
      {REDIS_REPLY_STRING, "file not found", -19, -1, "",
       "[VEL] metadata not found. file not found, p"},
      {REDIS_REPLY_STRING, "{\"Kind\":", -1, -1, "metadata parse error\n",
       "[TARN] TarnGetMetaData::TarnGetMetaData() Failed to parse metadata: "},
      {REDIS_REPLY_ERROR, "ERR no such service", -1, -1, "metadata parse error\n", ""},
      // Nested deeper than the parser's stack limit: it throws, we refuse.
      {REDIS_REPLY_STRING, std::string(5000, '[') + std::string(5000, ']'), -1, -1,
       "metadata parse error\n", "Exceeded stackLimit in readValue()."},
      {REDIS_REPLY_STRING, R"({"Kind":"file"})", -4, -1, "metadata to json error\n",
       "[VEL] [FETCH_MAP_DATA] Failed to fetch \"Size\"!"},
      {REDIS_REPLY_INTEGER, "", -6, -1, "", "[VEL] TarnGetMetaData:Internal Error: null reply."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 60));
    FakeReply r(c.type, c.text);
    VEL::TarnMetaData meta;
    int32_t mode = 7;
    testing::internal::CaptureStdout();
    EXPECT_EQ(c.status, VEL::tarn::decodeMetaDataReply(&r.reply, "p", meta, &mode));
    EXPECT_EQ(c.out, testing::internal::GetCapturedStdout());
    EXPECT_EQ(c.mode, mode);
    std::string text = log();
    EXPECT_NE(std::string::npos, text.find(c.message)) << text;
    if (c.status == -19) {
      EXPECT_EQ(std::string::npos, text.find("Failed to parse")) << text;
    }
    veltest::removeTree(logDir_.sub("velsdk.log"));
  }
  FakeReply file(REDIS_REPLY_STRING, cases[0].text);
  VEL::TarnMetaData meta;
  EXPECT_EQ(0, VEL::tarn::decodeMetaDataReply(&file.reply, "p", meta, nullptr));
  EXPECT_EQ("f", meta.Name);
  EXPECT_EQ(12, meta.Size);
  EXPECT_EQ("2024-01-02T03:04:05+0000", meta.LastModifiedTime);
  EXPECT_EQ("r", meta.AccessAllowRoles);
}

TEST_F(ReplyLogicTest, ConnectFailuresAndUnconnectedCommands) {
  TempDir dir;
  VEL::TarnClient absent(VEL::TarnConnOptions(), dir.sub("no.sock"));
  EXPECT_EQ(-6, absent.connect(1));
  EXPECT_NE(std::string::npos,
            log().find(" ERROR [VEL] Connection error: No such file or directory"));
  EXPECT_EQ(-6, absent.connect(2));
  EXPECT_TRUE(logged("[TARN] Connection type is not define"));
  EXPECT_EQ(0, absent.connect(0));
  EXPECT_EQ("TestService", absent.serviceName());

  // Without a connection every command is a null reply.
  VEL::TarnMetaData meta;
  std::list<std::string> entries;
  EXPECT_EQ(-6, absent.TarnMove("a", "b"));
  EXPECT_EQ(-6, absent.TarnGetMetaData("a", meta));
  EXPECT_EQ(-6, absent.TarnListFile("a", "false", entries));
  EXPECT_EQ("", absent.TarnCreateFileHandle("n", "w"));
  EXPECT_EQ(-6, absent.TarnRead("h", 0, 1));
  EXPECT_TRUE(logged("[VEL] TarnMove:Internal Error: null reply."));
  EXPECT_TRUE(logged("[VEL] TarnCreateFileHandle:Internal Error: null reply."));
  EXPECT_TRUE(logged("[VEL] TarnRead:Internal Error: null reply."));

  // An empty handle is refused before anything is sent.
  EXPECT_EQ(-7, absent.TarnCloseFileHandle(""));
  EXPECT_EQ(-7, absent.TarnRead("", 0, 1));
  EXPECT_EQ(-7, absent.TarnWrite("", "data"));
  EXPECT_FALSE(logged("[VEL] TarnWrite:Internal Error: null reply."));
}

TEST(TarnClientTimeout, ComesFromTheOptionElseTheConfigurationAndIsNeverUnbounded) {
  struct Case {
    const char* env;  // "TARN_TIME_OUT", null when unset
    int32_t option;
    int32_t expected;
  } cases[] = {
      {nullptr, 0, 30000},
      {"450", 0, 450},
      {"450", 120, 120},
      {"abc", 0, 30000},
      // Values that wrap in the configuration's 32 bits (to 0 and to a
      // negative number) must not switch the time-out off.
      {"4294967296000", 0, 30000},
      {"3000000000", 0, 30000},
      {nullptr, -5, 30000},
  };
  for (const Case& c : cases) {
    ScopedEnv env("TARN_TIME_OUT", c.env);
    VEL::TarnConnOptions options;
    options.commandTimeoutMs = c.option;
    VEL::TarnClient client(options, "/nonexistent/velfileagent.sock");
    EXPECT_EQ(c.expected, client.commandTimeoutMs())
        << "TARN_TIME_OUT=" << (c.env != nullptr ? c.env : "(unset)") << " option=" << c.option;
  }
}

// Against the reference agent, with the test's own log directory.
class AgentTest : public LoggedTest {
 protected:
  using Journal = std::vector<std::vector<std::string>>;

  std::unique_ptr<VEL::TarnClient> connected(int32_t commandTimeoutMs = 0) {
    VEL::TarnConnOptions options;
    options.commandTimeoutMs = commandTimeoutMs;
    auto client = std::make_unique<VEL::TarnClient>(options, agent_.socketPath());
    EXPECT_EQ(0, client->connect(1));
    return client;
  }

  veltest::AgentFixture agent_;
};

TEST_F(AgentTest, EveryCommandSendsItsExactArguments) {
  ASSERT_TRUE(agent_.ready());
  agent_.setRules(R"([{"match":[],"reply":["status","OK"]}])");
  auto client = connected();
  VEL::TarnMetaData meta;
  std::list<std::string> entries;

  testing::internal::CaptureStdout();
  EXPECT_EQ("OK", client->TarnCreateFileHandle("n", "w"));
  EXPECT_EQ(0, client->TarnCloseFileHandle("h1"));
  EXPECT_EQ(0, client->TarnRead("h1", 5, 10));
  EXPECT_EQ(0, client->TarnWrite("h1", "data"));
  EXPECT_EQ(0, client->TarnRemoveFile("a/b", "false"));
  EXPECT_EQ(0, client->TarnUploadLocal("a/b", ""));
  EXPECT_EQ(0, client->TarnUploadLocal("a/b", "x"));
  EXPECT_EQ(0, client->TarnDownloadLocal("a/b", ""));
  EXPECT_EQ(0, client->TarnDownloadLocal("a/b", "x"));
  EXPECT_EQ(0, client->TarnCreateInfo("a", "dir"));
  EXPECT_EQ(-6, client->TarnListFile("a", "false", entries));  // a status is not a listing
  EXPECT_EQ(0, client->TarnMove("a", "b"));
  EXPECT_EQ(-1, client->TarnGetMetaData("a b", meta));  // "OK" is no JSON
  EXPECT_EQ(0, client->TarnChmod("a/b", "493"));
  EXPECT_EQ(0, client->TarnFSRename("a", "b"));
  EXPECT_EQ(
      "close handle success!\n"
      "[TARN]upload file success[a/b]!\n[TARN]upload file success[a/b]!\n"
      "[TARN]download file success[a/b]!\n[TARN]download file success[a/b]!\n"
      "[TARN]createinfo success[a]!\n"
      "reply=OK, path=a\n"
      "[TARN]move file success[src=a, dest=b]!\n"
      "metadata parse error\n"
      "[TARN]chmod success[path=a/b, mod=493]!\n",
      testing::internal::GetCapturedStdout());

  const std::string s = "TestService";
  EXPECT_EQ((Journal{{"tarn.create", s, "n", "w"},
                     {"tarn.close", s, "h1"},
                     {"tarn.read", "h1", "5", "10", s},
                     {"tarn.write", "h1", "data", s},
                     {"tarn.remove", s, "a/b", "false"},
                     {"tarn.uploadlocal", s, "a/b"},
                     {"tarn.uploadlocal", s, "a/b", "x"},
                     {"tarn.downloadlocal", s, "a/b"},
                     {"tarn.downloadlocal", s, "a/b", "x"},
                     {"tarn.createinfo", s, "a", "dir"},
                     {"tarn.dir", s, "a", "false"},
                     {"tarn.move", s, "a", "b"},
                     {"tarn.metadata", s, "a b"},
                     {"tarn.chmod", s, "493", "a/b"},
                     {"tarn.move_cache", s, "a", "b"}}),
            agent_.journal());
  EXPECT_TRUE(logged("[VEL] remove: success remove, a/b"));
  EXPECT_TRUE(logged("[SHOWINFO] service is TestService, path is a/b"));
  EXPECT_TRUE(logged("[VEL] uploadlocal: Failed to upload object. OK, a"));
}

TEST_F(AgentTest, ServesMetadataListingsAndTransfers) {
  ASSERT_TRUE(agent_.ready());
  veltest::makeDirs(agent_.store() + "/d/sub");
  veltest::writeFile(agent_.store() + "/d/f.txt", "hello");
  ASSERT_EQ(0, ::chmod((agent_.store() + "/d/f.txt").c_str(), 0640));
  auto client = connected();

  VEL::TarnMetaData meta;
  int32_t mode = 0;
  EXPECT_EQ(0, client->TarnGetMetaData("d/f.txt", meta, &mode));
  EXPECT_EQ("file", meta.Kind);
  EXPECT_EQ("f.txt", meta.Name);
  EXPECT_EQ(5, meta.Size);
  EXPECT_EQ(0640, mode);
  EXPECT_EQ(-19, client->TarnGetMetaData("d/none", meta, &mode));
  EXPECT_EQ(-1, mode);

  std::list<std::string> entries;
  testing::internal::CaptureStdout();
  EXPECT_EQ(0, client->TarnListFile("d", "false", entries));
  EXPECT_EQ("d/f.txt:\nd/sub/:\n", testing::internal::GetCapturedStdout());
  EXPECT_EQ((std::list<std::string>{"d/f.txt", "d/sub/"}), entries);

  veltest::makeDirs(agent_.mirror() + "/d");
  testing::internal::CaptureStdout();
  EXPECT_EQ(0, client->TarnDownloadLocal("d/f.txt", ""));
  EXPECT_EQ("hello", veltest::readFile(agent_.mirror() + "/d/f.txt"));
  veltest::writeFile(agent_.mirror() + "/d/f.txt", "changed");
  EXPECT_EQ(0, client->TarnUploadLocal("d/f.txt", ""));
  EXPECT_EQ("changed", veltest::readFile(agent_.store() + "/d/f.txt"));
  EXPECT_EQ(0, client->TarnChmod("d/f.txt", "384"));
  EXPECT_EQ(0600, veltest::permissionsOf(agent_.store() + "/d/f.txt"));
  EXPECT_EQ(0, client->TarnMove("d/f.txt", "d/g.txt"));
  EXPECT_TRUE(veltest::pathExists(agent_.store() + "/d/g.txt"));
  EXPECT_EQ(-6, client->TarnRemoveFile("d", "false"));  // not empty
  EXPECT_EQ(0, client->TarnRemoveFile("d", "true"));
  EXPECT_FALSE(veltest::pathExists(agent_.store() + "/d"));
  testing::internal::GetCapturedStdout();
}

TEST_F(AgentTest, RefusedOddAndMissingRepliesAreFailures) {
  ASSERT_TRUE(agent_.ready());
  const std::string deep = std::string(5000, '[') + std::string(5000, ']');
  agent_.setRules(
      std::string(R"([{"match":["tarn.move"],"reply":["status","ok"]},)") +
      R"({"match":["tarn.metadata","TestService","gone"],"reply":["bulk","file not found"]},)" +
      R"({"match":["tarn.metadata","TestService","deep"],"reply":["bulk",")" + deep + R"("]},)" +
      R"({"match":["tarn.remove"],"reply":["error","ERR busy"]},)" +
      R"({"match":["tarn.chmod"],"reply":["int",1]},)" +
      R"({"match":["tarn.dir"],"reply":["nil"]},)" +
      R"({"match":["tarn.createinfo"],"reply":["close"]}])");
  auto client = connected();
  VEL::TarnMetaData meta;
  std::list<std::string> entries;

  testing::internal::CaptureStdout();
  EXPECT_EQ(-6, client->TarnMove("a", "b"));
  EXPECT_EQ(-19, client->TarnGetMetaData("gone", meta));
  EXPECT_EQ(-1, client->TarnGetMetaData("deep", meta));
  EXPECT_EQ(-6, client->TarnRemoveFile("p", "true"));
  EXPECT_EQ(-6, client->TarnChmod("p", "420"));
  EXPECT_EQ(-6, client->TarnListFile("p", "false", entries));
  EXPECT_EQ("resp = ok\nmetadata parse error\nresp = ERR busy, path = p\nreply=, path=p\n",
            testing::internal::GetCapturedStdout());
  std::string text = log();
  EXPECT_NE(std::string::npos, text.find("ERROR [VEL] move: Failed to move object. ok, a\n"));
  EXPECT_NE(std::string::npos, text.find("ERROR [VEL] metadata not found. file not found, gone\n"));
  // Only the deep reply went to the parser; "file not found" never did.
  EXPECT_NE(std::string::npos,
            text.find("ERROR [TARN] TarnGetMetaData::TarnGetMetaData() Failed to parse metadata: "
                      "Exceeded stackLimit in readValue().\n"))
      << text;
  EXPECT_EQ(text.find("Failed to parse metadata"), text.rfind("Failed to parse metadata"));
  EXPECT_NE(std::string::npos,
            text.find("ERROR [VEL] remove: Failed to remove object. ERR busy, p\n"));
  EXPECT_NE(std::string::npos, text.find("ERROR [VEL] TarnChmod:Internal Error: null reply.\n"));

  // The agent hangs up: -6, and the broken connection stays failed.
  EXPECT_EQ(-6, client->TarnCreateInfo("p", "dir"));
  EXPECT_EQ(-6, client->TarnFSRename("a", "b"));
  EXPECT_TRUE(logged("[VEL] TarnCreateInfo:Internal Error: null reply."));
  EXPECT_TRUE(logged("[VEL] TarnFSRename:Internal Error: null reply."));
  // A fresh connection is served again.
  agent_.setRules("");
  EXPECT_EQ(0, connected()->TarnCreateInfo("p", "dir"));
}

TEST_F(AgentTest, ASilentAgentEndsTheCommandAtTheTimeOut) {
  ASSERT_TRUE(agent_.ready());
  agent_.setRules(R"([{"match":["tarn.move"],"reply":["status","OK"],"delay_ms":4000}])");
  ScopedEnv timeout("TARN_TIME_OUT", "300");
  auto fromConfig = connected();
  auto explicitOption = connected(150);
  struct Case {
    VEL::TarnClient* client;
    long minMs;
  } cases[] = {{fromConfig.get(), 250}, {explicitOption.get(), 120}};
  for (const auto& c : cases) {
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(-6, c.client->TarnMove("a", "b"));
    long ms = static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                    std::chrono::steady_clock::now() - start)
                                    .count());
    EXPECT_GE(ms, c.minMs);
    EXPECT_LT(ms, 2000);
  }
  EXPECT_TRUE(logged("[VEL] TarnMove:Internal Error: null reply."));
}

}  // namespace
