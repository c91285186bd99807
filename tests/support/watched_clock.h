#pragma once

#include <cstdlib>
#include <vector>

#include "support/notify_socket.h"
#include "support/scratch_folder.h"
#include "support/skipping_clock.h"

namespace test {

/// Skips time under a watchdog: how long each sleep was, and whether the restart manager had been
/// told just before.
class WatchedClock final : public SkippingClock {
 public:
  struct Sleep {
    std::chrono::nanoseconds duration;
    bool fed;
  };

  explicit WatchedClock(std::chrono::microseconds limit) {
    setenv("NOTIFY_SOCKET", manager.path.c_str(), 1);
    setenv("WATCHDOG_USEC", std::to_string(limit.count()).c_str(), 1);
  }
  ~WatchedClock() override {
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
  }

  void sleepFor(std::chrono::nanoseconds duration) override {
    sleeps.push_back({duration, manager.take("WATCHDOG=1") > 0});
    SkippingClock::sleepFor(duration);
  }

  std::vector<Sleep> sleeps;

 private:
  ScratchFolder folder;

 public:
  const NotifySocket manager{folder / "notify"};
};

}  // namespace test
