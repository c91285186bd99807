#pragma once

#include <array>
#include <cstdint>

#include "playback/gain_ramp.h"
#include "playback/stage_times.h"

namespace qs_ns {

class QS_ControllerBase;
class QS_MediaInterfaceBase;

/// The last steps of the sound path for one request: gain, factor-3 interpolation, media server.
/// Frames go in at the speech rate, 160 samples each. Fixed buffers, no allocation; blocks as long
/// as the media server does. One thread.
class FrameOutput {
 public:
  /// Starts a new signal: the filter forgets the request before, whose last samples would click
  /// into this one.
  FrameOutput(QS_ControllerBase& owner, StageTimes& requestTimes);

  /// Plays a frame whose gain moves toward `target` (Q10).
  void playRamped(Frame frame, std::int16_t target);
  /// Plays a frame at a fixed gain (Q10), which the ramp does not see.
  void playScaled(Frame frame, std::int16_t gain);
  void playSilence();

 private:
  static constexpr int kMaxFactor = 3;

  void play();
  void noteFirst(const std::int16_t* samples, std::size_t count);

  QS_ControllerBase& controller;
  QS_MediaInterfaceBase& media;
  StageTimes& times;
  GainRamp ramp;
  std::array<std::int16_t, kFrameSamples> scaled{};
  std::array<std::int16_t, kFrameSamples * kMaxFactor> out{};
};

}  // namespace qs_ns
