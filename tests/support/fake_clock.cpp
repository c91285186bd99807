#include "support/fake_clock.h"

#include <algorithm>
#include <vector>

namespace test {

using platform::MonotonicTime;

FakeClock::FakeClock() {
  platform::setClock(this);
}
FakeClock::~FakeClock() {
  platform::setClock(nullptr);
}

MonotonicTime FakeClock::now() {
  const std::lock_guard lock(state);
  return time;
}

void FakeClock::sleepFor(std::chrono::nanoseconds duration) {
  std::unique_lock lock(state);
  const auto end = time + duration;
  const auto self = waiters.insert(waiters.end(), {nullptr, nullptr, end});
  changed.notify_all();
  while (time < end)
    changed.wait(lock);
  waiters.erase(self);
}

bool FakeClock::waitUntil(platform::Condition& condition, platform::Mutex& mutex,
                          MonotonicTime deadline) {
  std::list<Waiter>::iterator self;
  {
    const std::lock_guard lock(state);
    if (time >= deadline) return false;
    self = waiters.insert(waiters.end(), {&condition, &mutex, deadline});
    changed.notify_all();
  }
  condition.wait(mutex);
  leave(self, mutex);
  return now() < deadline;
}

// A waiter that was notified may destroy its condition next, so it stays until the clock, which may
// be about to notify it too, has let go.
void FakeClock::leave(std::list<Waiter>::iterator self, platform::Mutex& mutex) {
  std::unique_lock lock(state);
  while (self->beingWoken) {
    mutex.unlock();
    changed.wait(lock);
    lock.unlock();
    mutex.lock();
    lock.lock();
  }
  waiters.erase(self);
}

void FakeClock::advance(std::chrono::nanoseconds duration) {
  std::unique_lock lock(state);
  time += duration;
  wakeDue(lock);
}

void FakeClock::advanceTo(MonotonicTime moment) {
  std::unique_lock lock(state);
  time = std::max(time, moment);
  wakeDue(lock);
}

MonotonicTime FakeClock::awaitDeadline() {
  std::unique_lock lock(state);
  while (earliestAhead() == MonotonicTime::max())
    changed.wait(lock);
  return earliestAhead();
}

std::chrono::nanoseconds FakeClock::advanceToNextDeadline() {
  const auto step = awaitDeadline() - now();
  advance(step);
  return step;
}

// Those whose end has come are only on their way out.
MonotonicTime FakeClock::earliestAhead() const {
  auto earliest = MonotonicTime::max();
  for (const Waiter& waiter : waiters) {
    if (waiter.deadline > time) earliest = std::min(earliest, waiter.deadline);
  }
  return earliest;
}

void FakeClock::wakeDue(std::unique_lock<std::mutex>& held) {
  changed.notify_all();
  std::vector<Waiter*> due;
  for (Waiter& waiter : waiters) {
    if (waiter.condition == nullptr || waiter.deadline > time || waiter.beingWoken) continue;
    waiter.beingWoken = true;
    due.push_back(&waiter);
  }
  held.unlock();
  // A waiter registers with its mutex held and gives it up only inside the wait, so whoever has
  // that mutex knows that the waiter really waits. Taken without ours, since waiters take ours
  // second.
  for (const Waiter* waiter : due) {
    const platform::MutexLock lock(*waiter->mutex);
    waiter->condition->notifyAll();
  }
  held.lock();
  for (Waiter* waiter : due)
    waiter->beingWoken = false;
  changed.notify_all();
}

}  // namespace test
