// The media server's functions over a recording.

#include <syslog.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "audio_samples.h"
#include "platform/media_server.h"
#include "support/file_size_limit.h"
#include "support/scratch_folder.h"
#include "support/skipping_clock.h"
#include "support/syslog_capture.h"

namespace {

using test::Samples;

class MediaServerTest : public testing::Test {
 protected:
  void SetUp() override { start("wav:" + file); }
  void TearDown() override {
    ms_stop();
    unsetenv("QUILLSPEAK_AUDIO");
  }

  static void start(const std::string& value) {
    test::clearLog();
    setenv("QUILLSPEAK_AUDIO", value.c_str(), 1);
    EXPECT_EQ(ms_start(), 0);
  }

  static int play(int handle, const Samples& samples) {
    return ms_sendDataToAudPlayback(handle, samples.data(),
                                    static_cast<unsigned int>(2 * samples.size()));
  }

  Samples recorded() const { return test::samplesFrom(test::readFile(file), 44); }

  test::SkippingClock clock;
  test::ScratchFolder folder;
  const std::string file = folder / "sound.wav";
};

TEST_F(MediaServerTest, PlaysOneSessionAtATimeAndAfterAStopInTheSameFile) {
  EXPECT_EQ(ms_openAudPlayback(1), 0) << "an unknown kind of stream";
  int handle = ms_openAudPlayback(2);
  ASSERT_GT(handle, 0);
  EXPECT_EQ(ms_openAudPlayback(2), 0) << "a second stream";
  const Samples first(5000, 11);
  EXPECT_EQ(play(handle, first), 10000);
  EXPECT_EQ(ms_sendDataToAudPlayback(handle, first.data(), 3), 2) << "half a frame is not taken";
  EXPECT_LT(play(handle + 1, first), 0);
  EXPECT_EQ(ms_closeAudPlayback(handle), 0);
  EXPECT_LT(ms_closeAudPlayback(handle), 0);
  EXPECT_LT(play(handle, first), 0);

  handle = ms_openAudPlayback(2);
  EXPECT_EQ(ms_stop(), 0);
  EXPECT_LT(ms_closeAudPlayback(handle), 0);
  EXPECT_EQ(ms_openAudPlayback(2), 0) << "open while stopped";
  EXPECT_EQ(ms_start(), 0);
  EXPECT_EQ(play(ms_openAudPlayback(2), first), 10000);
  EXPECT_EQ(recorded(), Samples(10001, 11));
}

TEST_F(MediaServerTest, LogsOnceWhatIsValidAndOpensNothingWhereTheOutputIsNot) {
  for (const std::string& value : {std::string("alsa"), std::string("null:"), std::string("NULL"),
                                   std::string("auto "), std::string("wav:"), std::string("oss:x"),
                                   "wav:" + folder / "missing/a.wav", "wav:" + folder.path()}) {
    start(value);
    EXPECT_EQ(ms_openAudPlayback(2), 0);
    EXPECT_EQ(ms_openAudPlayback(2), 0);
    EXPECT_LT(ms_startTone(ms_createToneSession(0), 1, 1), 0);
    EXPECT_EQ(test::countLog(""), 1) << value;
    EXPECT_EQ(test::countLog("nothing will be heard; valid are ", LOG_ERR), 1) << value;
  }
}

TEST_F(MediaServerTest, LetsAToneAndSpeechExcludeEachOther) {
  const int tone = ms_createToneSession(0);
  const int speech = ms_openAudPlayback(2);
  EXPECT_LT(ms_startTone(tone, 1, 1), 0);
  EXPECT_EQ(ms_closeAudPlayback(speech), 0);
  EXPECT_EQ(ms_stopSession(tone), 0) << "a silent session may be stopped";
  EXPECT_EQ(ms_startTone(tone, 1, 1), 0);
  EXPECT_LT(ms_startTone(ms_createToneSession(0), 1, 1), 0);
  EXPECT_EQ(ms_openAudPlayback(2), 0);
  // Closing the session stops its tone.
  EXPECT_EQ(ms_closeSession(tone), 0);
  EXPECT_LT(ms_startTone(tone, 1, 1), 0);
  EXPECT_GT(ms_openAudPlayback(2), 0);
}

TEST_F(MediaServerTest, EndsAToneThatCannotBeHeardAndLetsSpeechTry) {
  const int tone = ms_createToneSession(0);
  {
    const test::FileSizeLimit full(44);
    EXPECT_EQ(ms_startTone(tone, 1, 1), 0);
    EXPECT_TRUE(test::waitForLog("audio: the tone ends, its output failed: File too large"));
  }
  EXPECT_GT(ms_openAudPlayback(2), 0);
}

}  // namespace
