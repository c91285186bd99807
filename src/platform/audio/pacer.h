#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/clock.h"

namespace platform::audio {

/// The clock of a sound card that is not there: sound that is added is heard at 48,000 frames a
/// second from the moment at which the sound before it ended. It never catches up: where the
/// caller comes late, the next sound begins when it is added. One thread; sleeps on
/// platform::clock().
class Pacer {
 public:
  /// Nothing waits any more.
  void restart() { setWaiting(0); }
  /// A real device tells that `frames` wait in it now.
  void setWaiting(std::size_t frames);
  /// Blocks until `frames` more would make at most `depth` wait.
  void waitForRoom(std::size_t frames, std::size_t depth);
  void add(std::size_t frames);
  /// Blocks until all was heard.
  void drain() { waitForRoom(0, 0); }
  /// When all that was added will have been heard.
  MonotonicTime endOfSound() const;

 private:
  // Counted from the beginning of unbroken sound, so that odd block sizes add up to no drift.
  MonotonicTime start{};
  std::int64_t framesSinceStart = 0;
};

}  // namespace platform::audio
