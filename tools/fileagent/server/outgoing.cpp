#include "server/outgoing.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace velagent {

namespace {

// The pieces a streamed read is sent in.
constexpr size_t kStreamPiece = 256u * 1024u;
// A buffer up to this size is kept for the next reply; a larger one is
// given back, so that a connection that once sent a large reply does not
// hold its memory while it idles.
constexpr size_t kKeptBuffer = 4096;

}  // namespace

void Outgoing::start(const Reply& reply, long trickleMs) {
  buffer_ = encode(reply);
  sent_ = 0;
  const bool streamed = reply.kind == Reply::Kind::kStream;
  source_ = streamed ? reply.source : nullptr;
  left_ = streamed ? reply.number : 0;
  tail_ = streamed;
  trickleMs_ = trickleMs;
  due_ = false;
}

void Outgoing::startRaw(std::string bytes) {
  clear();
  buffer_ = std::move(bytes);
}

void Outgoing::clear() {
  std::string().swap(buffer_);
  sent_ = 0;
  source_.reset();
  left_ = 0;
  tail_ = false;
  trickleMs_ = 0;
}

Outgoing::Progress Outgoing::flush(int fd) {
  for (;;) {
    if (sent_ == buffer_.size()) {
      sent_ = 0;
      if (left_ > 0) {
        // The next piece reuses the memory of the last one.
        const size_t n = static_cast<size_t>(std::min<long long>(left_, kStreamPiece));
        buffer_.resize(n);
        if (!source_->next(&buffer_[0], n)) {
          return Progress::kFailed;
        }
        left_ -= static_cast<long long>(n);
        continue;
      }
      if (tail_) {
        buffer_.assign("\r\n");
        tail_ = false;
        continue;
      }
      if (buffer_.capacity() > kKeptBuffer) {
        std::string().swap(buffer_);
      } else {
        buffer_.clear();
      }
      source_.reset();
      trickleMs_ = 0;
      return Progress::kDone;
    }
    size_t size = buffer_.size() - sent_;
    if (trickleMs_ > 0) {
      if (!due_) {
        return Progress::kPause;
      }
      size = 1;
    }
    const ssize_t n = ::send(fd, buffer_.data() + sent_, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return errno == EAGAIN || errno == EWOULDBLOCK ? Progress::kBlocked : Progress::kFailed;
    }
    sent_ += static_cast<size_t>(n);
    due_ = false;
  }
}

}  // namespace velagent
