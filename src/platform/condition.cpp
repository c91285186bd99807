#include "platform/condition.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <limits>

namespace platform {

Condition::Condition() {
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pthread_cond_init(&handle, &attributes);
  pthread_condattr_destroy(&attributes);
}

Condition::~Condition() {
  pthread_cond_destroy(&handle);
}

void Condition::wait(Mutex& mutex) {
  pthread_cond_wait(&handle, &mutex.handle);
}

bool Condition::waitUntil(Mutex& mutex, MonotonicTime deadline) {
  using std::chrono::duration_cast;
  using std::chrono::nanoseconds;
  using std::chrono::seconds;
  const auto sinceStart = deadline.time_since_epoch();
  const auto wholeSeconds = duration_cast<seconds>(sinceStart);
  timespec at{};
  // "For ever" as a deadline is beyond what 32 bits of seconds hold.
  const std::int64_t lastSecond = std::numeric_limits<time_t>::max();
  at.tv_sec = static_cast<time_t>(std::min<std::int64_t>(wholeSeconds.count(), lastSecond));
  at.tv_nsec = static_cast<long>(duration_cast<nanoseconds>(sinceStart - wholeSeconds).count());
  return pthread_cond_timedwait(&handle, &mutex.handle, &at) == 0;
}

void Condition::notifyOne() {
  pthread_cond_signal(&handle);
}

void Condition::notifyAll() {
  pthread_cond_broadcast(&handle);
}

}  // namespace platform
