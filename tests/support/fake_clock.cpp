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
  const std::lock_guard lock(mutex);
  return time;
}

void FakeClock::sleepFor(std::chrono::nanoseconds duration) {
  std::unique_lock lock(mutex);
  const auto end = time + duration;
  const auto self = waiters.insert(waiters.end(), {nullptr, nullptr, end});
  changed.notify_all();
  while (time < end)
    changed.wait(lock);
  waiters.erase(self);
}

bool FakeClock::waitUntil(platform::Condition& condition, platform::Mutex& conditionMutex,
                          MonotonicTime deadline) {
  std::list<Waiter>::iterator self;
  {
    const std::lock_guard lock(mutex);
    if (time >= deadline) return false;
    self = waiters.insert(waiters.end(), {&condition, &conditionMutex, deadline});
    changed.notify_all();
  }
  condition.wait(conditionMutex);
  const std::lock_guard lock(mutex);
  waiters.erase(self);
  return time < deadline;
}

void FakeClock::advance(std::chrono::nanoseconds duration) {
  std::unique_lock lock(mutex);
  time += duration;
  wakeDue(lock);
}

std::chrono::nanoseconds FakeClock::advanceToNextDeadline() {
  std::unique_lock lock(mutex);
  while (waiters.empty())
    changed.wait(lock);
  const auto earliest =
      std::min_element(waiters.begin(), waiters.end(),
                       [](const Waiter& a, const Waiter& b) { return a.deadline < b.deadline; });
  const auto step =
      std::max(earliest->deadline - time, std::chrono::steady_clock::duration::zero());
  time += step;
  wakeDue(lock);
  return step;
}

void FakeClock::wakeDue(std::unique_lock<std::mutex>& held) {
  changed.notify_all();
  std::vector<Waiter> due;
  std::copy_if(waiters.begin(), waiters.end(), std::back_inserter(due),
               [this](const Waiter& w) { return w.condition != nullptr && w.deadline <= time; });
  held.unlock();
  // A waiter registers with its mutex held and gives it up only inside the wait, so whoever has
  // that mutex knows that the waiter really waits. Taken without ours, since waiters take ours
  // second.
  for (const Waiter& waiter : due) {
    const platform::MutexLock lock(*waiter.mutex);
    waiter.condition->notifyAll();
  }
}

}  // namespace test
