#pragma once

#include "support/fake_clock.h"

namespace test {

/// Time that a sleep moves on at once: for code that sleeps on the test's own thread. A timed wait
/// finds its deadline passed.
class SkippingClock : public FakeClock {
 public:
  void sleepFor(std::chrono::nanoseconds duration) override { advance(duration); }
  bool waitUntil(platform::Condition&, platform::Mutex&,
                 platform::MonotonicTime deadline) override NO_THREAD_SAFETY_ANALYSIS {
    advanceTo(deadline);
    return false;
  }
};

}  // namespace test
