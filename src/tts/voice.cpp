#include "tts/voice.h"

#include <algorithm>

namespace qs_ns {

Voice voiceMutex;

bool Voice::take(Urgency urgency, const std::function<bool()>& givenUp) {
  const Waiter self{urgency};
  platform::MutexLock hold(mutex);
  enter(self);
  while (!isTurnOf(self)) {
    // Whoever calls `wake` after the question was asked is not missed.
    const unsigned seen = wakes;
    hold.unlock();
    const bool leaves = givenUp();
    hold.lock();
    if (leaves) {
      leave(self);
      changed.notifyAll();
      return false;
    }
    while (!isTurnOf(self) && wakes == seen)
      changed.wait(mutex);
  }
  leave(self);
  held = true;
  return true;
}

void Voice::lock() {
  static_cast<void>(take(Urgency::background, [] { return false; }));
}

void Voice::unlock() {
  const platform::MutexLock hold(mutex);
  held = false;
  changed.notifyAll();
}

void Voice::wake() {
  const platform::MutexLock hold(mutex);
  ++wakes;
  changed.notifyAll();
}

void Voice::beginSpeech() {
  const platform::MutexLock hold(mutex);
  ++speeches;
}

void Voice::endSpeech() {
  const platform::MutexLock hold(mutex);
  if (--speeches == 0) changed.notifyAll();
}

void Voice::enter(const Waiter& waiter) {
  const auto place = std::find_if(line.begin(), line.end(), [&](const Waiter* other) {
    return other->urgency < waiter.urgency;
  });
  line.insert(place, &waiter);
}

void Voice::leave(const Waiter& waiter) {
  line.erase(std::find(line.begin(), line.end(), &waiter));
}

bool Voice::isTurnOf(const Waiter& waiter) const {
  return !held && line.front() == &waiter &&
         (waiter.urgency == Urgency::speech || !isWantedBySpeech());
}

}  // namespace qs_ns
