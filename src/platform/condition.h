#pragma once

#include <pthread.h>

#include <chrono>

#include "platform/mutex.h"

namespace platform {

/// The time base of every wait: `steady_clock`, which is CLOCK_MONOTONIC here.
using MonotonicTime = std::chrono::steady_clock::time_point;

/// A condition variable over `Mutex` on the monotonic clock. A wait may also end without a reason,
/// so callers test theirs in a loop; timed waits go through `Clock::waitUntil`.
class Condition {
 public:
  Condition();
  ~Condition();
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  void wait(Mutex& mutex) REQUIRES(mutex);
  /// Returns false where `deadline` has passed.
  bool waitUntil(Mutex& mutex, MonotonicTime deadline) REQUIRES(mutex);
  void notifyOne();
  void notifyAll();

 private:
  pthread_cond_t handle;
};

}  // namespace platform
