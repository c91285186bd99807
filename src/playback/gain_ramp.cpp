#include "playback/gain_ramp.h"

#include <algorithm>
#include <limits>

namespace qs_ns {

namespace {
constexpr int kGainBits = 10;
constexpr std::int64_t kHalf = 1 << (kGainBits - 1);
// Of 1024: the part of the distance that one sample closes.
constexpr std::int64_t kStep = 100;
}  // namespace

std::int16_t scaleSample(std::int64_t gain, std::int16_t sample) {
  using Limits = std::numeric_limits<std::int16_t>;
  const std::int64_t scaled = (gain * sample + kHalf) >> kGainBits;
  return static_cast<std::int16_t>(std::clamp<std::int64_t>(scaled, Limits::min(), Limits::max()));
}

void GainRamp::apply(Frame in, ScaledFrame out, std::int16_t target) {
  std::int64_t gain = current;
  for (int i = 0; i < kFrameSamples; ++i) {
    out[static_cast<std::size_t>(i)] = scaleSample(gain, in[static_cast<std::size_t>(i)]);
    gain += ((target - gain) * kStep) >> kGainBits;
  }
  current = static_cast<std::int16_t>(gain);
}

}  // namespace qs_ns
