#include "server/timer_queue.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <functional>

namespace velagent {

TimerQueue::TimerQueue() { fd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK); }

TimerQueue::~TimerQueue() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

void TimerQueue::arm(Clock::time_point when) {
  struct itimerspec due = {};
  if (when != Clock::time_point::max()) {
    // steady_clock counts CLOCK_MONOTONIC, the timerfd's clock. A zero
    // value would disarm: a deadline at the clock's origin is made 1 ns.
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(when.time_since_epoch());
    const long long count = ns.count() > 0 ? ns.count() : 1;
    due.it_value.tv_sec = static_cast<time_t>(count / 1000000000LL);
    due.it_value.tv_nsec = static_cast<long>(count % 1000000000LL);
  }
  ::timerfd_settime(fd_, TFD_TIMER_ABSTIME, &due, nullptr);
  armed_ = when;
}

void TimerQueue::add(Clock::time_point when, uint64_t key) {
  std::lock_guard<std::mutex> lock(mutex_);
  heap_.emplace(when, key);
  if (when < armed_) {
    arm(when);
  }
}

void TimerQueue::takeDue(Clock::time_point now, std::vector<uint64_t>& due) {
  std::lock_guard<std::mutex> lock(mutex_);
  uint64_t expirations = 0;
  while (::read(fd_, &expirations, sizeof expirations) < 0 && errno == EINTR) {
  }
  while (!heap_.empty() && heap_.top().first <= now) {
    due.push_back(heap_.top().second);
    heap_.pop();
  }
  arm(heap_.empty() ? Clock::time_point::max() : heap_.top().first);
}

size_t TimerQueue::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return heap_.size();
}

}  // namespace velagent
