#pragma once

#include <chrono>

#include "platform/condition.h"
#include "platform/mutex.h"

namespace platform {

/// Where all waits and elapsed times of the daemon come from, so that setting the system's time
/// stalls nothing and a test can let 20 s pass at once. Any thread may call it.
class Clock {
 public:
  virtual ~Clock() = default;

  /// Monotonic time; only differences mean anything.
  virtual MonotonicTime now() = 0;

  /// Blocks the calling thread for `duration`.
  virtual void sleepFor(std::chrono::nanoseconds duration) = 0;

  /// Waits on `condition` with `mutex` held until it is notified (also without reason) or
  /// `deadline` has passed. Returns false where the deadline has passed.
  virtual bool waitUntil(Condition& condition, Mutex& mutex, MonotonicTime deadline)
      REQUIRES(mutex) = 0;
};

/// The clock in use: the machine's own, or the one a test has put in its place.
Clock& clock();

/// Puts `replacement` in the machine's place (null: back again). For tests, before their threads
/// start and after they have ended.
void setClock(Clock* replacement);

}  // namespace platform
