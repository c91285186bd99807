// ALSA's own PCMs and a sound server, which need no sound card: what is asked of them, and how
// failures are told.

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <map>
#include <string>

#include <alsa/asoundlib.h>
#include <gtest/gtest.h>

#include "audio_samples.h"
#include "platform/audio/alsa_output.h"
#include "platform/media_server.h"
#include "support/scratch_folder.h"
#include "support/skipping_clock.h"
#include "support/sound_server.h"

namespace {

using namespace std::chrono_literals;
using platform::audio::AlsaOutput;
using platform::audio::kStepFrames;
using test::play;
using test::Samples;

/// What the device says to writes, by their number from 1; 0 where it takes the sound.
std::map<int, int> writeFailures;
int writes = 0;

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
                        "  bindings.1 { slave a channel 1 } }\n"
                        // 44,100 or nothing, taken by whole periods.
                        "pcm.slow { type rate slave { pcm record rate 44100 }\n"
                        "  converter linear }\n");
    setenv("ALSA_CONFIG_PATH", (folder / "alsa.conf").c_str(), 1);
  }
  void TearDown() override { unsetenv("ALSA_CONFIG_PATH"); }

  /// What was recorded when the device was given back, without the silence up to a whole period.
  Samples recorded(AlsaOutput& output) const {
    output.release();
    Samples all = test::samplesFrom(test::readFile(recording), 0);
    while (!all.empty() && all.back() == 0)
      all.pop_back();
    return all;
  }

  test::SkippingClock clock;
  test::ScratchFolder folder;
  const std::string recording = folder / "recording.raw";
};

TEST_F(AlsaOutputTest, GivesItsOwnPaceToAPcmWithoutOne) {
  AlsaOutput output("silent", std::make_shared<platform::audio::SoundDepth>());
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
  AlsaOutput output("stereo", std::make_shared<platform::audio::SoundDepth>());
  const Samples sent = test::ramp(1000);
  Samples expected;
  for (const std::int16_t sample : sent)
    expected.insert(expected.end(), 2, sample);
  EXPECT_EQ(play(output, sent), 0);
  EXPECT_EQ(recorded(output), expected);
}

TEST_F(AlsaOutputTest, LosesNoTailToARateConversion) {
  AlsaOutput output("slow", std::make_shared<platform::audio::SoundDepth>());
  std::size_t before = 0;
  for (const int frames : {1100, 200, 3 * 240 + 1}) {
    SCOPED_TRACE(frames);
    std::string why;
    ASSERT_EQ(output.open(why), 0) << why;
    const Samples sent(static_cast<std::size_t>(frames), 1000);
    EXPECT_EQ(output.write(sent.data(), sent.size()), 0);
    const auto start = clock.now();
    EXPECT_EQ(output.close(), 0);
    EXPECT_LT(clock.now() - start, 100ms);
    output.rest();
    const Samples all = test::samplesFrom(test::readFile(recording), 0);
    const auto heard = std::count_if(all.begin() + static_cast<std::ptrdiff_t>(before), all.end(),
                                     [](int sample) { return sample > 500; });
    // ALSA makes 220 of the 240 in a period.
    EXPECT_NEAR(static_cast<double>(heard), frames * 220.0 / 240, 2);
    before = all.size();
  }
}

TEST_F(AlsaOutputTest, LosesNothingInAnUnderrunAndGivesUpADeviceThatIsGone) {
  AlsaOutput output("record", std::make_shared<platform::audio::SoundDepth>());
  const Samples sent = test::ramp(2000);
  writes = 0;
  writeFailures = {{1, -EPIPE}, {3, -EPIPE}, {4, -EPIPE}, {7, -ESTRPIPE}};
  EXPECT_EQ(play(output, sent), 0);
  EXPECT_EQ(recorded(output), sent);
  writes = 0;
  writeFailures = {{3, -ENODEV}};
  EXPECT_EQ(play(output, sent), -ENODEV);
}

TEST_F(AlsaOutputTest, SaysWhyItDoesNotOpenAndNothingOnStandardError) {
  testing::internal::CaptureStderr();
  AlsaOutput output("hw:77", std::make_shared<platform::audio::SoundDepth>());
  std::string why;
  EXPECT_LT(output.open(why), 0);
  EXPECT_NE(why.find("card index for 77"), std::string::npos) << why;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

class PulseAudio : public testing::Test {
 protected:
  PulseAudio() {
    setenv("QUILLSPEAK_AUDIO", "alsa:pulse", 1);
    ms_start();
  }

  test::ScratchFolder folder;
  test::SoundServer server{(test::useSoundServer(folder), folder)};
  test::SoundRecording recording;
};

// What happens when the server hangs or dies is with the daemon's tests. Real time.
TEST_F(PulseAudio, HearsExactlyWhatWasSentInTheTimeOfTheSoundAlsoWhereTheCallerPauses) {
  const int handle = ms_openAudPlayback(2);
  ASSERT_NE(handle, 0);
  // Not whole numbers of steps. The last one is heard to its end though the stream is closed.
  constexpr std::size_t kLast = 32001;
  for (const std::size_t frames : {std::size_t{4801}, std::size_t{4801}, kLast}) {
    const Samples sent = test::ramp(frames);
    const auto bytes = static_cast<int>(2 * frames);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ms_sendDataToAudPlayback(handle, sent.data(), static_cast<unsigned>(bytes)), bytes);
    if (frames == kLast) {
      EXPECT_EQ(ms_closeAudPlayback(handle), 0);
      const auto taken = std::chrono::steady_clock::now() - start;
      EXPECT_GE(taken, 666ms);
      EXPECT_LE(taken, 1666ms);
    }
    EXPECT_EQ(recording.take(frames), sent);
    // The device runs dry.
    recording.awaitSilence(4800);
  }
}

TEST_F(PulseAudio, IsSilentAtOnceAndWithoutAClickWhereItsSoundIsDropped) {
  constexpr int kSteps = 30;
  Samples tone(kSteps * kStepFrames);
  for (std::size_t i = 0; i < tone.size(); ++i)
    tone[i] = static_cast<std::int16_t>(8000 * std::sin(0.025 * static_cast<double>(i)));
  constexpr int kLargestStep = 200;
  int clicks = 0;
  for (int round = 0; round < 8; ++round) {
    const int handle = ms_openAudPlayback(2);
    for (std::size_t step = 0; step < kSteps; ++step) {
      // Somewhere in the time in which a step sounds.
      if (step == kSteps / 2) {
        const auto until = std::chrono::steady_clock::now() + round * 1300us;
        while (std::chrono::steady_clock::now() < until) {
        }
        EXPECT_EQ(ms_dropAudPlayback(handle), 0);
      }
      ms_sendDataToAudPlayback(handle, &tone[step * kStepFrames], 2 * kStepFrames);
    }
    EXPECT_EQ(ms_closeAudPlayback(handle), 0);
    // A busy machine has gaps in the tone; only how it ends is of interest.
    Samples heard = recording.take(1);
    for (int silent = 0; silent < 2400; silent = heard.back() == 0 ? silent + 1 : 0)
      heard.push_back(recording.next());
    int largest = 0;
    for (std::size_t i = heard.size() - 2400 - kStepFrames; i < heard.size(); ++i)
      largest = std::max(largest, std::abs(heard[i] - heard[i - 1]));
    clicks += largest > kLargestStep ? 1 : 0;
    // What was sent before the drop, and on a busy machine the end of it once more as it fades.
    EXPECT_LT(std::ssize(heard) - std::count(heard.begin(), heard.end(), 0),
              (kSteps / 2 + 1) * static_cast<int>(kStepFrames));
  }
  // The server may take its next bite between our look and the drop.
  EXPECT_LE(clicks, 2);
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
