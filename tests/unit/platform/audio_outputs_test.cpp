// The outputs that are not devices: what they keep, and the time they take; and the tones.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <string>

#include <gtest/gtest.h>

#include "audio_samples.h"
#include "platform/audio/null_output.h"
#include "platform/audio/sound_depth.h"
#include "platform/audio/tones.h"
#include "platform/audio/wav_output.h"
#include "support/file_size_limit.h"
#include "support/scratch_folder.h"
#include "support/skipping_clock.h"

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using platform::audio::durationOf;
using platform::audio::kDepthFrames;
using platform::audio::kStepFrames;
using platform::audio::NullOutput;
using platform::audio::Tone;
using platform::audio::WavOutput;
using test::play;
using test::ramp;
using test::Samples;

/// As 32 bits, the low byte first.
std::string sizeField(std::size_t size) {
  std::string bytes(4, '\0');
  std::memcpy(bytes.data(), &size, bytes.size());
  return bytes;
}

/// The samples of a WAVE file whose header must count exactly them.
Samples readWave(const std::string& path) {
  const std::string bytes = test::readFile(path);
  // 16 bytes: PCM, 1 channel, 48,000 frames and 96,000 bytes a second, 2 bytes a frame, 16 bits.
  EXPECT_EQ(bytes.substr(0, 44),
            "RIFF" + sizeField(bytes.size() - 8) +
                "WAVEfmt \x10\0\0\0\1\0\1\0\x80\xBB\0\0\0\x77\1\0\2\0\x10\0data"s +
                sizeField(bytes.size() - 44));
  return test::samplesFrom(bytes, 44);
}

TEST(SoundDepth, DoublesAtAnUnderrunUpToALimitAndShrinksAfterAMinuteWithoutOne) {
  const struct {
    std::chrono::nanoseconds late;  // after the sound before ran out
    std::size_t frames;             // that may wait then
  } kSounds[] = {{0ns, 960},    {-5ms, 960},  {101ms, 960}, {1ns, 1920},
                 {100ms, 3840}, {50ms, 3840}, {-5ms, 3840}, {59s, 3840},
                 {900ms, 3840}, {110ms, 960}, {10ms, 1920}};
  platform::audio::SoundDepth depth;
  depth.setDevice(240, 3840);
  platform::MonotonicTime end{1h};
  for (const auto& sound : kSounds) {
    const platform::MonotonicTime now = end + sound.late;
    depth.noteSound(now, end);
    EXPECT_EQ(depth.frames(), sound.frames) << sound.late.count();
    end = now;
  }
  depth.setDevice(1024, 1600);
  EXPECT_EQ(depth.frames(), 1600U) << "two periods, but no more than there is room for";
}

TEST(NullOutput, LetsNoMoreWaitThanItsDepthAndCatchesNothingUpAfterAPause) {
  test::SkippingClock clock;
  NullOutput output;
  std::string why;
  ASSERT_EQ(output.open(why), 0);
  const Samples step(kStepFrames);
  for (const std::size_t size : {std::size_t{480}, std::size_t{6}}) {
    clock.sleepFor(5s);
    const auto start = clock.now();
    std::int64_t sent = 0;
    while (sent < 4800) {
      output.write(step.data(), size);
      sent += static_cast<std::int64_t>(size);
      EXPECT_EQ(clock.now() - start,
                std::max(durationOf(sent - static_cast<int>(kDepthFrames)), 0ns));
    }
    output.close();
    EXPECT_EQ(clock.now() - start, durationOf(sent));
    ASSERT_EQ(output.open(why), 0);
  }
}

struct WavOutputTest : testing::Test {
  test::SkippingClock clock;
  test::ScratchFolder folder;
  const std::string path = folder / "sound.wav";
};

TEST(WavOutput, IsAWholeFileAfterEveryWriteAlsoWhereTheDiskWasFull) {
  const test::SkippingClock clock;
  const test::ScratchFolder folder;
  const std::string path = folder / "sound.wav";
  test::writeFile(path, std::string(100000, 'x'));
  WavOutput output(path);
  EXPECT_EQ(test::readFile(path).size(), 100000U) << "emptied before the first session";
  const Samples all = ramp(1500);
  std::string why;
  ASSERT_EQ(output.open(why), 0);
  EXPECT_EQ(readWave(path), Samples());
  for (const int done : {0, 400}) {
    ASSERT_EQ(output.write(all.data() + done, 400), 0);
    EXPECT_EQ(readWave(path), Samples(all.begin(), all.begin() + 400 + done));
  }
  EXPECT_EQ(output.close(), 0);
  {
    const test::FileSizeLimit limit(44 + 800 * 2 + 333);
    EXPECT_LT(play(output, ramp(480, 5000)), 0);
  }
  EXPECT_EQ(play(output, {all.begin() + 800, all.end()}), 0);
  EXPECT_EQ(readWave(path), all);
}

double waveAt(int hertz, std::size_t frame) {
  return std::sin(2 * std::numbers::pi * hertz * static_cast<double>(frame) / 48000);
}

TEST(Tones, SoundAsTheirRowsSay) {
  for (int index = 0; index < platform::audio::kToneCount; ++index) {
    const Tone& tone = *platform::audio::toneAt(index);
    const std::size_t cycle = 48U * (tone.onMs + tone.offMs);
    test::Samples samples(cycle + 479);
    platform::audio::ToneGenerator generator(tone);
    // In uneven blocks, which must not show.
    for (std::size_t done = 0; done + 479 <= samples.size(); done += 479)
      generator.render(samples.data() + done, 479);
    double worst = 0;
    for (std::size_t i = 0; i < cycle; ++i) {
      // A second wave of 0 Hz is none.
      const double waves = waveAt(tone.firstHz, i) + waveAt(tone.secondHz, i);
      const double peak = i < 48U * tone.onMs ? 32767 * std::pow(10, tone.levelDb / 20.0) : 0;
      worst = std::max(worst, std::abs(peak * waves - samples[i]));
    }
    EXPECT_LE(worst, 0.51) << tone.name;
  }
}

}  // namespace
