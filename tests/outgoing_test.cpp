// A reply on its way out of a non-blocking socket: every byte arrives in
// order whether the socket takes it at once or in turns, a streamed read
// holds one piece at a time, a trickle lets out one byte per turn, and a
// failing source or a closed peer ends it.
#include "server/outgoing.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>

namespace {

using velagent::BulkSource;
using velagent::Outgoing;
using velagent::Reply;
using Progress = Outgoing::Progress;

// A connected pair of Unix stream sockets; the sending one is non-blocking.
struct SocketPair {
  SocketPair() {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
      ::fcntl(fds[0], F_SETFL, O_NONBLOCK);
      ::fcntl(fds[1], F_SETFL, O_NONBLOCK);
    }
  }
  ~SocketPair() {
    ::close(fds[0]);
    ::close(fds[1]);
  }
  int out() const { return fds[0]; }
  // Everything waiting on the other end.
  std::string drain() const {
    std::string got;
    char buffer[65536];
    ssize_t n;
    while ((n = ::recv(fds[1], buffer, sizeof buffer, 0)) > 0) {
      got.append(buffer, static_cast<size_t>(n));
    }
    return got;
  }
  int fds[2] = {-1, -1};
};

// Bytes i % 251 from `offset` on, asked for in pieces; remembers the
// largest piece and can fail at a given call.
class Pattern : public BulkSource {
 public:
  explicit Pattern(int failAt = -1) : failAt_(failAt) {}
  bool next(char* buffer, size_t n) override {
    if (calls_++ == failAt_) {
      return false;
    }
    largest_ = std::max(largest_, n);
    for (size_t i = 0; i < n; ++i) {
      buffer[i] = static_cast<char>((offset_ + i) % 251);
    }
    offset_ += n;
    return true;
  }
  size_t largest() const { return largest_; }

 private:
  int failAt_;
  int calls_ = 0;
  size_t offset_ = 0;
  size_t largest_ = 0;
};

std::string pattern(size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<char>(i % 251);
  }
  return bytes;
}

TEST(Outgoing, AReplyLargerThanTheSocketTakesGoesOutInTurnsWhole) {
  SocketPair pair;
  const std::string text = pattern(1 << 20);
  Outgoing out;
  out.start(Reply::bulk(text), 0);
  std::string got;
  int blocked = 0;
  for (Progress p; (p = out.flush(pair.out())) != Progress::kDone;) {
    ASSERT_EQ(Progress::kBlocked, p);
    ++blocked;
    got += pair.drain();
  }
  got += pair.drain();
  EXPECT_GT(blocked, 0) << "the socket took 1 MiB at once: the test shows nothing";
  EXPECT_EQ("$" + std::to_string(text.size()) + "\r\n" + text + "\r\n", got);
  EXPECT_TRUE(out.idle());
}

TEST(Outgoing, AStreamedReadHoldsOnePieceAtATime) {
  SocketPair pair;
  const size_t size = (1 << 20) + 12345;
  auto source = std::make_shared<Pattern>();
  Outgoing out;
  out.start(Reply::stream(static_cast<long long>(size), source), 0);
  std::string got;
  for (Progress p; (p = out.flush(pair.out())) != Progress::kDone;) {
    ASSERT_EQ(Progress::kBlocked, p);
    got += pair.drain();
  }
  got += pair.drain();
  EXPECT_EQ("$" + std::to_string(size) + "\r\n" + pattern(size) + "\r\n", got);
  EXPECT_LE(source->largest(), 256u * 1024u);
}

TEST(Outgoing, ATrickleLetsOutOneByteAfterEachPause) {
  SocketPair pair;
  Outgoing out;
  out.start(Reply::status("OK"), 10);
  EXPECT_EQ(10, out.trickleMs());
  std::string got;
  int pauses = 0;
  for (Progress p; (p = out.flush(pair.out())) != Progress::kDone;) {
    ASSERT_EQ(Progress::kPause, p);
    // Nothing more than one byte per turn, and none before the first pause.
    const std::string now = pair.drain();
    EXPECT_EQ(pauses == 0 ? 0u : 1u, now.size()) << "turn " << pauses;
    got += now;
    ++pauses;
    out.resume();
  }
  got += pair.drain();
  EXPECT_EQ("+OK\r\n", got);
  EXPECT_EQ(5, pauses);
}

TEST(Outgoing, AFailingSourceOrAClosedPeerEndsTheReply) {
  {
    SocketPair pair;
    Outgoing out;
    out.start(Reply::stream(1 << 20, std::make_shared<Pattern>(1)), 0);
    Progress p;
    while ((p = out.flush(pair.out())) == Progress::kBlocked) {
      pair.drain();
    }
    EXPECT_EQ(Progress::kFailed, p);
  }
  {
    SocketPair pair;
    ::close(pair.fds[1]);
    pair.fds[1] = -1;
    Outgoing out;
    out.start(Reply::bulk("data"), 0);
    EXPECT_EQ(Progress::kFailed, out.flush(pair.out()));
  }
  {
    // What is cleared is not sent.
    SocketPair pair;
    Outgoing out;
    out.start(Reply::bulk("data"), 0);
    out.clear();
    EXPECT_TRUE(out.idle());
    EXPECT_EQ(Progress::kDone, out.flush(pair.out()));
    EXPECT_EQ("", pair.drain());
  }
}

}  // namespace
