#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace platform::audio {

/// The one format of all sound here: mono, signed 16-bit in native byte order, this many a second.
inline constexpr int kFramesPerSecond = 48000;
/// How much sound may wait in a device: 20 ms. Less stutters, more is heard as delay. A device that
/// runs dry all the same may double it, up to 80 ms.
inline constexpr std::size_t kDepthFrames = 960;
inline constexpr std::size_t kMostDepthFrames = 4 * kDepthFrames;
/// The most that is handed to an output at a time: 10 ms.
inline constexpr std::size_t kStepFrames = 480;

/// How long `frames` (up to some hours' worth) sound.
constexpr std::chrono::nanoseconds durationOf(std::int64_t frames) {
  return std::chrono::nanoseconds(frames * 1'000'000'000 / kFramesPerSecond);
}

/// A place that sound goes to, one stream at a time: open, write as often as wanted, close, and so
/// on. One thread at a time calls it (`Line` sees to that). A device may keep any call for as long
/// as it likes; what can do so is put behind `GuardedOutput`, where no call takes more than about a
/// second beyond the time of its sound. Failures are negative errno values; who calls decides what
/// is logged.
class Output {
 public:
  virtual ~Output() = default;

  /// Begins a stream. On failure there is none, and `why` says in a few words what is wrong.
  virtual int open(std::string& why) = 0;

  /// Plays `frames` (1 to kStepFrames) samples after those before. Blocks until at most the depth
  /// waits in the device, these included; a device with periods above 10 ms needs two of them. A
  /// caller that was away for longer than that goes on as if the stream began anew. After a failure
  /// only `close` may follow.
  virtual int write(const std::int16_t* samples, std::size_t frames) = 0;

  /// Ends the stream when all of it was heard, after a failed write at once. Whatever it returns,
  /// there is no stream afterwards.
  virtual int close() = 0;

  /// Asks the stream that is open to be silent at once: what waits is dropped but for 5 ms, which
  /// fade out, and what is written from now on is taken and not heard. Any thread, also during a
  /// write, which then ends early; never blocks. Recordings and the output to nowhere keep
  /// every sample.
  virtual void drop() {}
};

/// An output that may keep a call for ever, and that stays open between streams, so that the next
/// one begins at once. One thread makes its calls, but for `drop`.
class Device : public Output {
 public:
  /// Does what `drop` asked for, where no write under way has.
  virtual void finishDrop() = 0;
  /// Between streams, when all was heard: stops the device, so that nothing wakes up for it.
  virtual void rest() = 0;
  /// Gives the device back until the next stream.
  virtual void release() = 0;
};

}  // namespace platform::audio
