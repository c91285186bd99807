// ALSA's own PCMs, which need no sound card: what is asked of them, and how failures are told.

#include <cerrno>
#include <cstdlib>
#include <map>
#include <numeric>
#include <string>
#include <vector>

#include <alsa/asoundlib.h>
#include <gtest/gtest.h>

#include "audio_samples.h"
#include "platform/audio/alsa_output.h"
#include "support/scratch_folder.h"
#include "support/skipping_clock.h"

namespace {

using namespace std::chrono_literals;
using platform::audio::AlsaOutput;

/// What the device says to writes, by their number from 1; 0 where it takes the sound.
std::map<int, int> writeFailures;
int writes = 0;

using platform::audio::kStepFrames;
using test::Samples;

class AlsaOutputTest : public testing::Test {
 protected:
  void SetUp() override {
    test::writeFile(folder / "alsa.conf",
                    "</usr/share/alsa/alsa.conf>\n"
                    "pcm.silent { type null }\n"
                    "pcm.record { type file file \"" +
                        recording +
                        "\" format raw slave.pcm silent }\n"
                        // Two channels or none.
                        "pcm.stereo { type multi slaves.a.pcm record\n"
                        "  slaves.a.channels 2\n"
                        "  bindings.0 { slave a channel 0 }\n"
                        "  bindings.1 { slave a channel 1 } }\n");
    setenv("ALSA_CONFIG_PATH", (folder / "alsa.conf").c_str(), 1);
  }
  void TearDown() override { unsetenv("ALSA_CONFIG_PATH"); }

  static int play(AlsaOutput& output, const Samples& samples) {
    std::string why;
    int status = output.open(why);
    if (status < 0) return status;
    for (std::size_t done = 0; status >= 0 && done < samples.size(); done += kStepFrames) {
      status = output.write(samples.data() + done, std::min(kStepFrames, samples.size() - done));
    }
    return std::min(status, output.close());
  }

  Samples recorded() const { return test::samplesFrom(test::readFile(recording), 0); }

  test::SkippingClock clock;
  test::ScratchFolder folder;
  const std::string recording = folder / "recording.raw";
};

TEST_F(AlsaOutputTest, GivesItsOwnPaceToAPcmWithoutOne) {
  AlsaOutput output("silent");
  for (const int steps : {300, 1}) {
    std::string why;
    ASSERT_EQ(output.open(why), 0);
    const auto start = clock.now();
    for (int i = 0; i < steps; ++i) {
      EXPECT_EQ(output.write(Samples(kStepFrames).data(), kStepFrames), 0);
      EXPECT_GE(clock.now() - start, (i + 1) * 10ms - 120ms);
    }
    EXPECT_EQ(output.close(), 0);
    EXPECT_EQ(clock.now() - start, steps * 10ms);
  }
}

TEST_F(AlsaOutputTest, ConvertsForAPcmThatIsNotMono) {
  AlsaOutput output("stereo");
  Samples sent(1000);
  Samples expected;
  for (std::size_t i = 0; i < sent.size(); ++i) {
    sent[i] = static_cast<std::int16_t>(i + 1);
    expected.insert(expected.end(), 2, sent[i]);
  }
  EXPECT_EQ(play(output, sent), 0);
  EXPECT_EQ(recorded(), expected);
}

TEST_F(AlsaOutputTest, LosesNothingInAnUnderrunAndGivesUpADeviceThatIsGone) {
  AlsaOutput output("record");
  Samples sent(2000);
  std::iota(sent.begin(), sent.end(), std::int16_t{1});
  writes = 0;
  writeFailures = {{1, -EPIPE}, {3, -EPIPE}, {4, -EPIPE}, {7, -ESTRPIPE}};
  EXPECT_EQ(play(output, sent), 0);
  EXPECT_EQ(recorded(), sent);
  writes = 0;
  writeFailures = {{3, -ENODEV}};
  EXPECT_EQ(play(output, sent), -ENODEV);
}

TEST_F(AlsaOutputTest, SaysWhyItDoesNotOpenAndNothingOnStandardError) {
  testing::internal::CaptureStderr();
  AlsaOutput output("hw:77");
  std::string why;
  EXPECT_LT(output.open(why), 0);
  EXPECT_NE(why.find("card index for 77"), std::string::npos) << why;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's own names for a wrapped function.
extern "C" {
snd_pcm_sframes_t __real_snd_pcm_writei(snd_pcm_t*, const void*, snd_pcm_uframes_t);

snd_pcm_sframes_t __wrap_snd_pcm_writei(snd_pcm_t* pcm, const void* samples,
                                        snd_pcm_uframes_t frames) {
  const auto failure = writeFailures.find(++writes);
  if (failure != writeFailures.end()) return failure->second;
  return __real_snd_pcm_writei(pcm, samples, frames);
}
}
// NOLINTEND(bugprone-reserved-identifier)
