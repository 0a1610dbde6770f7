// The reply caps, fed byte strings with no socket: a reply over a cap is
// refused as soon as its header shows it, one within the caps is whole.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

#include <memory>
#include <string>

#include "agent/tarn_reply.h"

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
    ReplyPtr taken(raw);
    if (reply != nullptr) {
      *reply = std::move(taken);
    }
    return status;
  }
  const CappedReader& cap() const { return cap_; }

 private:
  std::unique_ptr<redisReader, ReaderDeleter> reader_;
  CappedReader cap_;
};

std::string repeat(const std::string& item, size_t times) {
  std::string out;
  out.reserve(item.size() * times);
  for (size_t i = 0; i < times; ++i) {
    out += item;
  }
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

}  // namespace
