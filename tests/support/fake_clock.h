#pragma once

#include <condition_variable>
#include <list>
#include <mutex>

#include "platform/clock.h"

namespace test {

/// Time that moves only when a test says so. Put in place on construction, taken out on
/// destruction; destroy it after the threads that use it have ended.
class FakeClock : public platform::Clock {
 public:
  FakeClock();
  ~FakeClock() override;

  platform::MonotonicTime now() override;
  void sleepFor(std::chrono::nanoseconds duration) override;
  bool waitUntil(platform::Condition& condition, platform::Mutex& mutex,
                 platform::MonotonicTime deadline) REQUIRES(mutex) override;

  /// Moves time on, never back, and ends every sleep and wait whose end has come.
  void advance(std::chrono::nanoseconds duration);
  void advanceTo(platform::MonotonicTime moment);

  /// Blocks until a thread sleeps or waits with a deadline; the earliest end. A waiter that was
  /// notified counts until it has run.
  platform::MonotonicTime awaitDeadline();
  /// Moves time on to that end; returns how far that was.
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
