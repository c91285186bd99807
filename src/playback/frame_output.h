#pragma once

#include <array>
#include <cstdint>

#include "playback/gain_ramp.h"

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
  explicit FrameOutput(QS_ControllerBase& owner);

  /// Plays a frame whose gain moves toward `target` (Q10).
  void playRamped(Frame frame, std::int16_t target);
  /// Plays a frame at a fixed gain (Q10), which the ramp does not see.
  void playScaled(Frame frame, std::int16_t gain);
  void playSilence();

 private:
  static constexpr int kMaxFactor = 3;

  void play();

  QS_ControllerBase& controller;
  QS_MediaInterfaceBase& media;
  GainRamp ramp;
  std::array<std::int16_t, kFrameSamples> scaled{};
  std::array<std::int16_t, kFrameSamples * kMaxFactor> out{};
};

}  // namespace qs_ns
