#pragma once

#include <cstdint>
#include <span>

namespace qs_ns {

/// 10 ms at the speech rate.
inline constexpr int kFrameSamples = 160;

using Frame = std::span<const std::int16_t, kFrameSamples>;
using ScaledFrame = std::span<std::int16_t, kFrameSamples>;

/// `sample` times `gain` (Q10, 1024 is unity), rounded, clamped to 16 bits.
std::int16_t scaleSample(std::int64_t gain, std::int16_t sample);

/// A gain that moves toward its target with every sample, so that speech begins and ends without a
/// click: it closes 100/1024 of the distance a sample, which takes a few milliseconds. Integer
/// steps leave it up to 10 below a higher target; a fade-out reaches 0.
class GainRamp {
 public:
  /// Scales one frame of samples, moving toward `target` (Q10).
  void apply(Frame in, ScaledFrame out, std::int16_t target);

  std::int16_t gain() const { return current; }

 private:
  std::int16_t current = 0;
};

}  // namespace qs_ns
