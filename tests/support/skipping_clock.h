#pragma once

#include <algorithm>
#include <mutex>

#include "platform/clock.h"

namespace test {

/// Time that a sleep moves on at once: for code that sleeps on the test's own thread. A timed wait
/// finds its deadline passed.
class SkippingClock final : public platform::Clock {
 public:
  SkippingClock() { platform::setClock(this); }
  ~SkippingClock() override { platform::setClock(nullptr); }

  platform::MonotonicTime now() override {
    const std::lock_guard lock(mutex);
    return time;
  }

  void sleepFor(std::chrono::nanoseconds duration) override {
    const std::lock_guard lock(mutex);
    time += duration;
  }

  bool waitUntil(platform::Condition&, platform::Mutex&,
                 platform::MonotonicTime deadline) override NO_THREAD_SAFETY_ANALYSIS {
    const std::lock_guard lock(mutex);
    time = std::max(time, deadline);
    return false;
  }

 private:
  std::mutex mutex;
  platform::MonotonicTime time{std::chrono::hours(1)};
};

}  // namespace test
