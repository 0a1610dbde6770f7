// The reply a connection is sending, written to a non-blocking socket as
// far as the socket takes it: the encoded reply, or for a streamed read its
// length line, then the file's bytes one piece at a time (only one piece in
// memory), then the closing CRLF. With a trickle (a test rule) every byte
// waits for its own turn: flush() stops before each and resume() lets the
// next one go.
//
// Not thread-safe: it belongs to its connection, which one thread at a time
// works on.
#ifndef VEL_TOOLS_FILEAGENT_SERVER_OUTGOING_H_
#define VEL_TOOLS_FILEAGENT_SERVER_OUTGOING_H_

#include <cstddef>
#include <memory>
#include <string>

#include "server/reply.h"

namespace velagent {

class Outgoing {
 public:
  enum class Progress {
    kDone,     // everything is sent (or there was nothing to send)
    kBlocked,  // the socket takes no more now: wait until it is writable
    kPause,    // trickling: wait for the pause, then resume()
    kFailed,   // the socket failed, or a streamed piece could not be read
  };

  // Starts sending `reply` (not a close); with `trickleMs` above 0 each
  // byte goes out after its own pause of that length.
  void start(const Reply& reply, long trickleMs);
  // Starts sending `bytes` as they are.
  void startRaw(std::string bytes);

  bool idle() const { return sent_ == buffer_.size() && left_ == 0 && !tail_; }
  long trickleMs() const { return trickleMs_; }

  // Sends what the socket `fd` takes now.
  Progress flush(int fd);
  // The pause before the next trickled byte is over.
  void resume() { due_ = true; }
  // Drops whatever is unsent and gives its memory back.
  void clear();

 private:
  std::string buffer_;  // bytes on their way out; sent_ of them are gone
  size_t sent_ = 0;
  std::shared_ptr<BulkSource> source_;  // a streamed read: the file's bytes
  long long left_ = 0;                  // of which this many still to read
  bool tail_ = false;                   // its closing CRLF still to come
  long trickleMs_ = 0;
  bool due_ = false;  // trickling: the next byte may go
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_SERVER_OUTGOING_H_
