#include "platform/clock.h"

#include <atomic>
#include <cerrno>
#include <ctime>

namespace platform {

namespace {

class SystemClock final : public Clock {
 public:
  MonotonicTime now() override { return std::chrono::steady_clock::now(); }

  void sleepFor(std::chrono::nanoseconds duration) override {
    const auto wholeSeconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
    timespec left{};
    left.tv_sec = static_cast<time_t>(wholeSeconds.count());
    left.tv_nsec = static_cast<long>((duration - wholeSeconds).count());
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
    }
  }

  bool waitUntil(Condition& condition, Mutex& mutex, MonotonicTime deadline)
      REQUIRES(mutex) override {
    return condition.waitUntil(mutex, deadline);
  }
};

SystemClock systemClock;
std::atomic<Clock*> current{&systemClock};

}  // namespace

Clock& clock() {
  return *current.load(std::memory_order_relaxed);
}

void setClock(Clock* replacement) {
  current.store(replacement != nullptr ? replacement : &systemClock);
}

}  // namespace platform
