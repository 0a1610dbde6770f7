// The event loop's deadlines: keys come out due and in order, and the
// descriptor the loop waits on becomes readable when the earliest deadline
// comes, not before, whatever order the keys were added in.
#include "server/timer_queue.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <cstdint>
#include <vector>

namespace {

using velagent::TimerQueue;
using Clock = TimerQueue::Clock;
using std::chrono::milliseconds;

// True when the queue's descriptor becomes readable within `ms`.
bool readableWithin(const TimerQueue& timers, int ms) {
  struct pollfd pfd = {timers.fd(), POLLIN, 0};
  return ::poll(&pfd, 1, ms) == 1;
}

TEST(TimerQueue, GivesTheDueKeysInDeadlineOrderAndKeepsTheRest) {
  TimerQueue timers;
  ASSERT_TRUE(timers.ok());
  const Clock::time_point now = Clock::now();
  timers.add(now + milliseconds(30), 3);
  timers.add(now - milliseconds(5), 1);
  timers.add(now + milliseconds(60000), 9);
  timers.add(now + milliseconds(10), 2);
  std::vector<uint64_t> due;
  timers.takeDue(now, due);
  EXPECT_EQ(std::vector<uint64_t>({1}), due);
  timers.takeDue(now + milliseconds(30), due);
  EXPECT_EQ(std::vector<uint64_t>({1, 2, 3}), due);
  EXPECT_EQ(1u, timers.size());
}

TEST(TimerQueue, TheDescriptorWakesAtTheEarliestDeadlineAndNotBefore) {
  TimerQueue timers;
  ASSERT_TRUE(timers.ok());
  EXPECT_FALSE(readableWithin(timers, 0)) << "readable with nothing to wait for";
  const Clock::time_point start = Clock::now();
  timers.add(start + milliseconds(60000), 9);
  // An earlier deadline added later moves the wake-up forward.
  timers.add(start + milliseconds(80), 1);
  EXPECT_FALSE(readableWithin(timers, 20));
  ASSERT_TRUE(readableWithin(timers, 5000));
  EXPECT_GE(Clock::now() - start, milliseconds(80));
  std::vector<uint64_t> due;
  timers.takeDue(Clock::now(), due);
  EXPECT_EQ(std::vector<uint64_t>({1}), due);
  // Taken: not readable again until the next deadline, a minute away.
  EXPECT_FALSE(readableWithin(timers, 50));
  // A deadline already past wakes it at once.
  timers.add(Clock::now() - milliseconds(1), 2);
  EXPECT_TRUE(readableWithin(timers, 1000));
}

}  // namespace
