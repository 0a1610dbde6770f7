// The reply caps, fed byte strings with no socket: a reply over a cap is
// refused as soon as its header shows it, one within the caps is whole.
// The metadata readers: the flat one agrees with the JSON one.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "agent/tarn_reply.h"
#include "support/fake_client.h"
#include "vel/records.h"

namespace {

using VEL::tarn::CappedReader;
using VEL::tarn::kMaxReplyBytes;
using VEL::tarn::kMaxReplyElements;

struct ReaderDeleter {
  void operator()(redisReader* reader) const { redisReaderFree(reader); }
};
struct ReplyDeleter {
  void operator()(void* reply) const { freeReplyObject(reply); }
};
using ReplyPtr = std::unique_ptr<void, ReplyDeleter>;

// A reader held to the caps, fed in pieces.
class Capped {
 public:
  Capped() : reader_(redisReaderCreate()), cap_(reader_.get()) {}

  // Feeds `bytes` and takes a reply: REDIS_OK or REDIS_ERR; `reply` gets
  // the reply when one is whole.
  int feed(const std::string& bytes, ReplyPtr* reply = nullptr) {
    if (!bytes.empty() && redisReaderFeed(reader_.get(), bytes.data(), bytes.size()) != REDIS_OK) {
      return REDIS_ERR;
    }
    void* raw = nullptr;
    const int status = cap_.getReply(&raw);
    ReplyPtr unused;
    (reply != nullptr ? *reply : unused).reset(raw);
    return status;
  }
  const CappedReader& cap() const { return cap_; }

 private:
  std::unique_ptr<redisReader, ReaderDeleter> reader_;
  CappedReader cap_;
};

std::string repeat(const std::string& item, size_t times) {
  std::string out;
  for (size_t i = 0; i < times; ++i) out += item;
  return out;
}

TEST(CappedReaderTest, HeadersOverACapAreRefusedAtOnce) {
  const std::string cases[] = {
      "*1555555555\r\n",     // one array too long
      "$2147483648\r\n",     // one bulk too long
      "$21474836480",        // its digits alone tell
      "*1\r\n*1000000\r\n",  // 1,000,001 elements in all
      "*3\r\n:1\r\n$-1\r\n$" + std::to_string(kMaxReplyBytes + 1) + "\r\n",  // nested bulk
  };
  for (const std::string& bytes : cases) {
    Capped capped;
    EXPECT_EQ(REDIS_ERR, capped.feed(bytes)) << bytes;
    EXPECT_TRUE(capped.cap().overCap()) << bytes;
    // The reader stays failed: no later reply comes out of it.
    EXPECT_EQ(REDIS_ERR, capped.feed("+OK\r\n")) << bytes;
  }
}

TEST(CappedReaderTest, ElementsAndTextBytesAddUpOverTheReply) {
  {
    // Sibling arrays count together: 2 + 600,000 + 400,000 elements.
    Capped capped;
    EXPECT_EQ(REDIS_OK, capped.feed("*2\r\n*600000\r\n" + repeat(":1\r\n", 600000)));
    EXPECT_EQ(REDIS_ERR, capped.feed("*400000\r\n"));
    EXPECT_TRUE(capped.cap().overCap());
  }
  {
    // Two texts of 40 MiB: the second is refused at its header.
    const size_t len = 40u << 20;
    Capped capped;
    EXPECT_EQ(REDIS_OK, capped.feed("*2\r\n$" + std::to_string(len) + "\r\n" +
                                    std::string(len, 'x') + "\r\n"));
    EXPECT_EQ(REDIS_ERR, capped.feed("$" + std::to_string(len) + "\r\n"));
  }
  {
    // A status line that never ends: refused once the buffered bytes pass
    // the cap, not before.
    Capped capped;
    const std::string chunk(4u << 20, 'a');
    EXPECT_EQ(REDIS_OK, capped.feed("+"));
    size_t fed = 1;
    int status = REDIS_OK;
    while (status == REDIS_OK && fed <= kMaxReplyBytes + chunk.size()) {
      status = capped.feed(chunk);
      fed += chunk.size();
    }
    EXPECT_EQ(REDIS_ERR, status);
    EXPECT_GT(fed, kMaxReplyBytes);
    EXPECT_LE(fed, kMaxReplyBytes + chunk.size() + 1);
  }
}

TEST(CappedReaderTest, RepliesWithinTheCapsAreWholeAndTheCountStartsAgain) {
  Capped capped;
  ReplyPtr reply;
  // A 1 MiB text arriving in two pieces.
  const std::string text(1u << 20, 'm');
  ASSERT_EQ(REDIS_OK, capped.feed("$1048576\r\n" + text.substr(0, 1000), &reply));
  EXPECT_EQ(nullptr, reply);
  ASSERT_EQ(REDIS_OK, capped.feed(text.substr(1000) + "\r\n", &reply));
  ASSERT_NE(nullptr, reply);
  const auto* bulk = static_cast<redisReply*>(reply.get());
  ASSERT_EQ(REDIS_REPLY_STRING, bulk->type);
  EXPECT_EQ(text, std::string(bulk->str, bulk->len));

  // Exactly the element cap, twice in a row: each reply is counted alone.
  const std::string full = "*1\r\n*" + std::to_string(kMaxReplyElements - 1) + "\r\n" +
                           repeat(":7\r\n", kMaxReplyElements - 1);
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(REDIS_OK, capped.feed(full, &reply)) << round;
    ASSERT_NE(nullptr, reply) << round;
    const auto* outer = static_cast<redisReply*>(reply.get());
    ASSERT_EQ(1u, outer->elements);
    EXPECT_EQ(kMaxReplyElements - 1, outer->element[0]->elements);
  }
  EXPECT_FALSE(capped.cap().overCap());
}

// Generated metadata texts, most of them the agent's shape, many not: every
// text the flat reader takes, the JSON reader and fromJson read alike (and
// without complaint); a text it leaves alone stays untouched by it.
TEST(MetaDataReaders, TheFlatReaderAgreesWithTheJsonReaderOnEveryTextItTakes) {
  veltest::LogCapture log;
  static const std::vector<std::string> keys = {
      "AccessAllowRoles", "Kind", "LastModifiedTime", "Name", "Size", "mode", "Link", "x", ""};
  // clang-format off
  static const std::vector<std::string> values = {
      R"("all")", R"("file")", R"("dir")", R"("")", R"("2024-03-05T09:07:41+0100")", R"("a b")",
      R"("\u0041")", "\"\xc3\xa9\"", "\"tab\there\"", "0", "420", "-1", "2147483647",
      "2147483648", "4294967295", "4294967296", "-2147483648", "-2147483649",
      "123456789012345678", "1234567890123456789", "007", "-0", "1.5", "1e3", "true", "false",
      "null", "{}", "[1]", "-", "12-3"};
  // clang-format on
  std::mt19937 rng(16);
  int flat = 0;
  int left = 0;
  for (int i = 0; i < 40000; ++i) {
    // Mostly the agent's members with the usual values, so that both
    // readers see plenty of texts.
    const bool usual = rng() % 3 != 0;
    std::string text = rng() % 50 == 0 ? " {" : "{";
    const size_t members = rng() % 8;
    for (size_t m = 0; m < members; ++m) {
      const std::string& key = keys[rng() % (usual ? 6 : keys.size())];
      std::string value = values[rng() % (usual ? 11 : values.size())];
      if (usual && key == "Size") {
        value = values[9 + rng() % 9];
      }
      text += (m > 0 ? (rng() % 40 == 0 ? ", " : ",") : "") + ("\"" + key + "\"") +
              (rng() % 40 == 0 ? " : " : ":") + value;
    }
    text += rng() % 60 == 0 ? "}x" : "}";
    SCOPED_TRACE(text);
    VEL::TarnMetaData fast;
    fast.Name = "untouched";
    fast.Size = 77;
    int32_t fastMode = 55;
    if (!VEL::tarn::readFlatMetaData(text.data(), text.size(), fast, fastMode)) {
      ++left;
      ASSERT_EQ(std::make_tuple("untouched", 77, 55), std::tie(fast.Name, fast.Size, fastMode));
      continue;
    }
    ++flat;
    VEL::TarnMetaData json;
    int32_t jsonMode = 55;
    ASSERT_EQ(0, VEL::tarn::readMetaDataJson(text.data(), text.size(), json, jsonMode));
    ASSERT_EQ(std::tie(json.AccessAllowRoles, json.Kind, json.LastModifiedTime, json.Name,
                       json.Size, jsonMode),
              std::tie(fast.AccessAllowRoles, fast.Kind, fast.LastModifiedTime, fast.Name,
                       fast.Size, fastMode));
  }
  EXPECT_GT(flat, 5000);
  EXPECT_GT(left, 5000);
  EXPECT_FALSE(log.contains("GetDataFromJson"));
  EXPECT_FALSE(log.contains("Failed to parse"));

  // The agent's answers for a file and a folder take the flat way.
  const std::string file =
      R"({"AccessAllowRoles":"all","Kind":"file","LastModifiedTime":"2024-03-05T09:07:41+0100",)"
      R"("Name":"f","Size":4096,"mode":420})";
  const std::string folder =
      R"({"AccessAllowRoles":"all","Kind":"dir","LastModifiedTime":"2024-03-05T09:07:41+0100",)"
      R"("Name":"d","mode":493})";
  VEL::TarnMetaData meta;
  int32_t mode = -1;
  ASSERT_TRUE(VEL::tarn::readFlatMetaData(file.data(), file.size(), meta, mode));
  EXPECT_EQ(4096, meta.Size);
  EXPECT_EQ(420, mode);
  ASSERT_TRUE(VEL::tarn::readFlatMetaData(folder.data(), folder.size(), meta, mode));
  EXPECT_EQ("dir", meta.Kind);
  EXPECT_EQ(0, meta.Size);
  EXPECT_EQ(493, mode);
}

}  // namespace
