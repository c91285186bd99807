#include "platform/audio/pacer.h"

#include "platform/audio/output.h"

namespace platform::audio {

void Pacer::setWaiting(std::size_t frames) {
  start = clock().now();
  framesSinceStart = static_cast<std::int64_t>(frames);
}

void Pacer::waitForRoom(std::size_t frames, std::size_t depth) {
  const auto tooMany = static_cast<std::int64_t>(frames) - static_cast<std::int64_t>(depth);
  const MonotonicTime roomAt = endOfSound() + durationOf(tooMany);
  const MonotonicTime now = clock().now();
  if (now < roomAt) clock().sleepFor(roomAt - now);
}

void Pacer::add(std::size_t frames) {
  if (clock().now() > endOfSound()) restart();
  framesSinceStart += static_cast<std::int64_t>(frames);
  // In nanoseconds a count of days would not fit.
  constexpr std::chrono::hours kStep{1};
  constexpr std::int64_t kStepOfFrames = std::chrono::seconds(kStep).count() * kFramesPerSecond;
  if (framesSinceStart >= kStepOfFrames) {
    framesSinceStart -= kStepOfFrames;
    start += kStep;
  }
}

MonotonicTime Pacer::endOfSound() const {
  return start + durationOf(framesSinceStart);
}

}  // namespace platform::audio
