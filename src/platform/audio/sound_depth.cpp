#include "platform/audio/sound_depth.h"

#include <algorithm>

namespace platform::audio {

void SoundDepth::setDevice(std::size_t periodFrames, std::size_t bufferFrames) {
  // A device with periods above 10 ms starves on less than two of them.
  smallest = std::min(std::max(kDepthFrames, 2 * periodFrames), bufferFrames);
  largest = std::min(std::max(kMostDepthFrames, smallest), bufferFrames);
  current = std::clamp(current, smallest, largest);
}

void SoundDepth::noteSound(MonotonicTime now, MonotonicTime endOfSound) {
  if (endOfSound < now && now - endOfSound <= kPause) return noteUnderrun(now);
  if (now - lastUnderrun >= kForgiven) current = smallest;
}

void SoundDepth::noteUnderrun(MonotonicTime now) {
  current = std::min(2 * current, largest);
  lastUnderrun = now;
}

}  // namespace platform::audio
