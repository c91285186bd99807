// The table of tones, measured in what is rendered.

#include <cmath>
#include <numbers>
#include <vector>

#include <gtest/gtest.h>

#include "audio_samples.h"
#include "platform/audio/output.h"
#include "platform/audio/tones.h"

namespace {

using platform::audio::kFramesPerSecond;
using platform::audio::kToneCount;
using platform::audio::Tone;
using platform::audio::toneAt;
using platform::audio::ToneGenerator;
using test::Samples;

Samples render(const Tone& tone, std::size_t frames) {
  ToneGenerator generator(tone);
  Samples samples(frames);
  // In uneven blocks, which must not show.
  for (std::size_t done = 0; done < frames; done += 479)
    generator.render(samples.data() + done, std::min<std::size_t>(479, frames - done));
  return samples;
}

/// The peak of the wave of `hertz` in `samples`, relative to full scale, in dB.
double levelAt(const Samples& samples, double hertz) {
  double real = 0;
  double imaginary = 0;
  for (std::size_t i = 0; i < samples.size(); ++i) {
    const double phase = 2 * std::numbers::pi * hertz * static_cast<double>(i) / kFramesPerSecond;
    real += samples[i] * std::cos(phase);
    imaginary += samples[i] * std::sin(phase);
  }
  const double peak = 2 * std::hypot(real, imaginary) / static_cast<double>(samples.size());
  return 20 * std::log10(peak / 32767);
}

double meanSquare(const Samples& samples) {
  double sum = 0;
  for (const std::int16_t sample : samples)
    sum += static_cast<double>(sample) * sample;
  return sum / static_cast<double>(samples.size());
}

TEST(Tones, SoundAsTheirRowsSay) {
  for (int index = 0; index < kToneCount; ++index) {
    const Tone& tone = *toneAt(index);
    SCOPED_TRACE(tone.name);
    const Samples cycle = render(tone, 48U * (tone.onMs + tone.offMs));
    const Samples on(cycle.begin(), cycle.begin() + 48 * tone.onMs);
    const Samples off(cycle.begin() + 48 * tone.onMs, cycle.end());
    EXPECT_NEAR(levelAt(on, tone.firstHz), tone.levelDb, 0.5);
    if (tone.secondHz != 0) {
      EXPECT_NEAR(levelAt(on, tone.secondHz), tone.levelDb, 0.5);
    }
    // Nothing else sounds: the power is that of the waves alone.
    const double wave = std::pow(32767 * std::pow(10, tone.levelDb / 20.0), 2) / 2;
    EXPECT_NEAR(meanSquare(on) / wave, tone.secondHz != 0 ? 2 : 1, 0.1);
    EXPECT_EQ(off, Samples(off.size(), 0));
  }
}

}  // namespace
