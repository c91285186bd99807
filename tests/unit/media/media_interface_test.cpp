// The client of the media server over the real one, whose sound goes nowhere. What happens when
// that one fails is with the pipeline's tests.

#include "media/media_interface.h"

#include <syslog.h>

#include <climits>
#include <cstdlib>
#include <utility>

#include <gtest/gtest.h>

#include "support/skipping_clock.h"
#include "support/syslog_capture.h"

namespace {

using namespace std::chrono_literals;

class MediaInterfaceTest : public testing::Test {
 public:
  MediaInterfaceTest() {
    test::clearLog();
    setenv("QUILLSPEAK_AUDIO", "null", 1);
    EXPECT_TRUE(media.initializeMSInterface());
  }
  ~MediaInterfaceTest() override { unsetenv("QUILLSPEAK_AUDIO"); }

 protected:
  int play() { return media.playDataMsAudPlaybackSession(sound, sizeof sound); }

  test::SkippingClock clock;
  qs_ns::QS_MediaInterface media;
  const char sound[960] = {};
};

TEST_F(MediaInterfaceTest, HasOneSessionAtATimeAndLogsOnceThatItDies) {
  EXPECT_LT(play(), 0);
  EXPECT_EQ(test::countLog(""), 0) << "no session was lost";
  for (int round = 1; round <= 2; ++round) {
    EXPECT_EQ(media.startMsAudPlaybackSession(), 0);
    EXPECT_EQ(media.startMsAudPlaybackSession(), 0) << "it is open";
    EXPECT_EQ(play(), 960);
    EXPECT_EQ(media.cleanupMSInterface(), 0);
    for (int i = 0; i < 3; ++i)
      EXPECT_LT(play(), 0);
    EXPECT_EQ(test::countLog("session lost", LOG_ERR), round);
    const auto before = clock.now();
    EXPECT_EQ(media.stopMsAudPlaybackSession(), 0);
    EXPECT_EQ(media.stopMsAudPlaybackSession(), 0) << "there is nothing to close";
    EXPECT_EQ(clock.now() - before, 20ms);
    EXPECT_TRUE(media.initializeMSInterface());
  }
}

TEST_F(MediaInterfaceTest, MapsLevelsToGainsUntilItConnectsAfresh) {
  const std::pair<int, int> gains[] = {{0, 302},     {2, 512},          {5, 1124},
                                       {-100, 0},    {60, 2079621960},  {61, INT_MAX},
                                       {INT_MIN, 0}, {INT_MAX, INT_MAX}};
  for (const auto& [level, gain] : gains) {
    media.setVolume(level);
    EXPECT_EQ(media.getVolume(), gain) << level;
  }
  EXPECT_EQ(media.startMsAudPlaybackSession(), 0);
  EXPECT_TRUE(media.initializeMSInterface());
  EXPECT_EQ(media.getVolume(), 512);
  EXPECT_EQ(media.getMsAudPlaybackSession(), 0);
}

TEST_F(MediaInterfaceTest, PlaysTheAlertTone) {
  const int tone = media.startMsTone(5);
  EXPECT_GE(tone, 0);
  EXPECT_EQ(media.startMsAudPlaybackSession(), -5) << "it sounds";
  EXPECT_LT(media.startMsTone(5), 0);
  EXPECT_EQ(media.stopMsTone(tone), 0);
  EXPECT_EQ(media.stopMsTone(tone), -1) << "its session is closed";
}

}  // namespace
