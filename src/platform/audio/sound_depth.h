#pragma once

#include <chrono>
#include <cstddef>

#include "platform/audio/output.h"
#include "platform/condition.h"
#include "platform/mutex.h"

namespace platform::audio {

/// How much sound may wait in a device that runs dry now and then: doubled at each underrun, up to
/// 80 ms, and small again after a minute without one. Any thread: of two devices after each other,
/// the first may still be stuck.
class SoundDepth {
 public:
  static constexpr std::chrono::minutes kForgiven{1};
  /// A caller that comes later than this after the sound ran out had paused.
  static constexpr std::chrono::milliseconds kPause{100};

  /// A device with periods of `periodFrames` and room for `bufferFrames`.
  void setDevice(std::size_t periodFrames, std::size_t bufferFrames);

  std::size_t frames() const;

  /// Sound comes at `now`, and that before it was to end at `endOfSound`.
  void noteSound(MonotonicTime now, MonotonicTime endOfSound);
  /// The device says that it ran dry.
  void noteUnderrun(MonotonicTime now);

 private:
  void grow(MonotonicTime now) REQUIRES(mutex);

  mutable Mutex mutex{true};
  std::size_t smallest GUARDED_BY(mutex) = kDepthFrames;
  std::size_t largest GUARDED_BY(mutex) = kDepthFrames;
  std::size_t current GUARDED_BY(mutex) = kDepthFrames;
  MonotonicTime lastUnderrun GUARDED_BY(mutex){};
};

}  // namespace platform::audio
