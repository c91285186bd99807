#include "platform/audio/sound_depth.h"

#include <algorithm>

namespace platform::audio {

void SoundDepth::setDevice(std::size_t periodFrames, std::size_t bufferFrames) {
  const MutexLock lock(mutex);
  // A device with periods above 10 ms starves on less than two of them.
  smallest = std::min(std::max(kDepthFrames, 2 * periodFrames), bufferFrames);
  largest = std::min(std::max(kMostDepthFrames, smallest), bufferFrames);
  current = std::clamp(current, smallest, largest);
}

std::size_t SoundDepth::frames() const {
  const MutexLock lock(mutex);
  return current;
}

void SoundDepth::noteSound(MonotonicTime now, MonotonicTime endOfSound) {
  const MutexLock lock(mutex);
  if (endOfSound < now && now - endOfSound <= kPause) return grow(now);
  if (now - lastUnderrun >= kForgiven) current = smallest;
}

void SoundDepth::noteUnderrun(MonotonicTime now) {
  const MutexLock lock(mutex);
  grow(now);
}

void SoundDepth::grow(MonotonicTime now) {
  current = std::min(2 * current, largest);
  lastUnderrun = now;
}

}  // namespace platform::audio
