// The deadlines of the agent's event loop: request time-outs, the delays
// and the byte-by-byte pauses of the test rules, and a pause of accepting
// when the process is out of descriptors. A min-heap of (time, key) behind a
// timerfd that becomes readable once the earliest deadline is due, so that
// the loop waits for sockets and deadlines in one epoll_wait.
//
// Keys are the caller's: a key that is no longer wanted is left in the heap
// and ignored when it comes due (the caller recognises it as stale), so
// nothing is ever searched for or removed early.
//
// Thread safety: every method may be called from any thread at once.
#ifndef VEL_TOOLS_FILEAGENT_SERVER_TIMER_QUEUE_H_
#define VEL_TOOLS_FILEAGENT_SERVER_TIMER_QUEUE_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <queue>
#include <utility>
#include <vector>

namespace velagent {

class TimerQueue {
 public:
  using Clock = std::chrono::steady_clock;

  // Creates the timerfd; ok() is false when that failed (errno says why).
  TimerQueue();
  ~TimerQueue();
  TimerQueue(const TimerQueue&) = delete;
  TimerQueue& operator=(const TimerQueue&) = delete;

  bool ok() const { return fd_ >= 0; }
  // Readable once the earliest deadline is due; non-blocking, owned here.
  int fd() const { return fd_; }

  // Adds `key`, due at `when` (at once when that has passed).
  void add(Clock::time_point when, uint64_t key);
  // Appends to `due` every key due at `now`, earliest first, takes them out,
  // clears the descriptor's readiness and sets it for the next deadline.
  void takeDue(Clock::time_point now, std::vector<uint64_t>& due);
  // Keys waiting, stale ones included.
  size_t size() const;

 private:
  using Entry = std::pair<Clock::time_point, uint64_t>;
  // Sets the timerfd to `when`, or disarms it with Clock::time_point::max().
  void arm(Clock::time_point when);

  int fd_ = -1;
  mutable std::mutex mutex_;
  std::priority_queue<Entry, std::vector<Entry>, std::greater<Entry>> heap_;
  Clock::time_point armed_ = Clock::time_point::max();
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_SERVER_TIMER_QUEUE_H_
