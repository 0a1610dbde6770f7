// The agent connection: reply interpretation on hand-made replies, and every
// command against the reference agent, checked through its journal.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

#include <chrono>
#include <cstring>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "agent/tarn_reply.h"
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

}  // namespace
