// The outputs that are not devices: what they keep, and the time they take.

#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "audio_samples.h"
#include "platform/audio/null_output.h"
#include "platform/audio/wav_output.h"
#include "support/file_size_limit.h"
#include "support/scratch_folder.h"
#include "support/skipping_clock.h"

namespace {

using namespace std::chrono_literals;
using platform::audio::durationOf;
using platform::audio::kDepthFrames;
using platform::audio::kStepFrames;
using platform::audio::NullOutput;
using platform::audio::Output;
using platform::audio::WavOutput;
using test::Samples;

Samples ramp(std::size_t frames, std::int16_t first = 1) {
  Samples samples(frames);
  std::iota(samples.begin(), samples.end(), first);
  return samples;
}

/// Opens, writes in steps of `step` and closes; what went wrong first, else 0.
int play(Output& output, const Samples& samples, std::size_t step = kStepFrames) {
  std::string why;
  int status = output.open(why);
  if (status < 0) return status;
  for (std::size_t done = 0; status >= 0 && done < samples.size(); done += step)
    status = output.write(samples.data() + done, std::min(step, samples.size() - done));
  return std::min(status, output.close());
}

template <typename T>
T fieldAt(const std::string& bytes, std::size_t offset) {
  T value{};
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

/// The samples of a WAVE file whose header must count exactly them.
Samples readWave(const std::string& path) {
  const std::string bytes = test::readFile(path);
  if (bytes.size() < 44) {
    ADD_FAILURE() << "a header of " << bytes.size() << " bytes";
    return {};
  }
  EXPECT_EQ(bytes.substr(0, 4) + bytes.substr(8, 8) + bytes.substr(36, 4), "RIFFWAVEfmt data");
  EXPECT_EQ(fieldAt<std::uint32_t>(bytes, 4), bytes.size() - 8);
  EXPECT_EQ(fieldAt<std::uint32_t>(bytes, 16), 16U);
  EXPECT_EQ(fieldAt<std::uint16_t>(bytes, 20), 1) << "PCM";
  EXPECT_EQ(fieldAt<std::uint16_t>(bytes, 22), 1) << "channels";
  EXPECT_EQ(fieldAt<std::uint32_t>(bytes, 24), 48000U);
  EXPECT_EQ(fieldAt<std::uint32_t>(bytes, 28), 96000U) << "bytes a second";
  EXPECT_EQ(fieldAt<std::uint16_t>(bytes, 32), 2) << "bytes a frame";
  EXPECT_EQ(fieldAt<std::uint16_t>(bytes, 34), 16) << "bits";
  EXPECT_EQ(fieldAt<std::uint32_t>(bytes, 40), bytes.size() - 44);
  return test::samplesFrom(bytes, 44);
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

class WavOutputTest : public testing::Test {
 protected:
  test::SkippingClock clock;
  test::ScratchFolder folder;
  const std::string path = folder / "sound.wav";
};

TEST_F(WavOutputTest, IsAWholeFileAfterEveryWriteOfSessionsBackToBack) {
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
  EXPECT_EQ(play(output, {}), 0);
  EXPECT_EQ(play(output, {all.begin() + 800, all.end()}), 0);
  EXPECT_EQ(readWave(path), all);
}

TEST_F(WavOutputTest, FailsOnAFullDiskAndGoesOnInItsPlaceWhenThereIsRoomAgain) {
  WavOutput output(path);
  {
    const test::FileSizeLimit limit(44 + 480 * 2 + 333);
    EXPECT_LT(play(output, ramp(960, 1)), 0);
  }
  EXPECT_EQ(play(output, ramp(480, 5000)), 0);
  Samples expected = ramp(480, 1);
  const Samples later = ramp(480, 5000);
  expected.insert(expected.end(), later.begin(), later.end());
  EXPECT_EQ(readWave(path), expected);
}

}  // namespace
