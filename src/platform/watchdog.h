#pragma once

#include <chrono>
#include <optional>

#include "platform/unique_fd.h"

namespace platform {

/// How often the restart manager is to hear from this process: half of the time after which it
/// takes it for hung and starts it anew (WATCHDOG_USEC). Nothing where nobody watches. Any thread.
std::optional<std::chrono::microseconds> watchdogPeriod();

/// The time at which a loop has to tell the restart manager that it still runs. Monotonic, so that
/// setting the clock restarts nothing. The loop's own thread: another one would speak for a loop
/// that hangs.
class Watchdog {
 public:
  /// The first time is due a period from now; never where nobody watches or there is no timer, and
  /// then the log says so.
  Watchdog();

  /// Readable when the time has come, until `feedWhenDue`; -1 where it never comes.
  int descriptor() const { return timer.get(); }
  /// Tells the restart manager where the time has come. Does not block.
  void feedWhenDue() const;

 private:
  UniqueFd timer;
};

/// Sleeps by the daemon's clock and tells the restart manager meanwhile that this is no hang. For
/// the thread of the loop that is watched, while that loop does not run.
void sleepFed(std::chrono::nanoseconds duration);

}  // namespace platform
