#pragma once

#include <condition_variable>
#include <list>
#include <mutex>

#include "platform/clock.h"

namespace test {

/// Time that moves only when a test says so. Put in place on construction, taken out on
/// destruction; destroy it after the threads that use it have ended.
class FakeClock final : public platform::Clock {
 public:
  FakeClock();
  ~FakeClock() override;

  platform::MonotonicTime now() override;
  void sleepFor(std::chrono::nanoseconds duration) override;
  bool waitUntil(platform::Condition& condition, platform::Mutex& mutex,
                 platform::MonotonicTime deadline) REQUIRES(mutex) override;

  /// Moves time on and ends every sleep and wait whose end has come.
  void advance(std::chrono::nanoseconds duration);

  /// Blocks until a thread sleeps or waits with a deadline, then moves time on to the earliest end.
  /// Returns how far that was. A waiter that was notified counts until it has run.
  std::chrono::nanoseconds advanceToNextDeadline();

 private:
  struct Waiter {
    platform::Condition* condition;  // null for a sleeper
    platform::Mutex* mutex;
    platform::MonotonicTime deadline;
    bool beingWoken = false;
  };

  platform::MonotonicTime earliestAhead() const;
  void wakeDue(std::unique_lock<std::mutex>& held);
  void leave(std::list<Waiter>::iterator self, platform::Mutex& mutex) REQUIRES(mutex);

  std::mutex state;
  std::condition_variable changed;
  platform::MonotonicTime time{std::chrono::hours(1)};
  std::list<Waiter> waiters;
};

}  // namespace test
