// The client of the media server over the real one, whose sound goes nowhere. What happens when
// that one fails is with the pipeline's tests.

#include "media/media_interface.h"

#include <climits>
#include <cstdlib>
#include <utility>

#include <gtest/gtest.h>

#include "support/skipping_clock.h"
#include "support/syslog_capture.h"

namespace {

class MediaInterfaceTest : public testing::Test {
 public:
  MediaInterfaceTest() {
    setenv("QUILLSPEAK_AUDIO", "null", 1);
    EXPECT_TRUE(media.initializeMSInterface());
  }
  ~MediaInterfaceTest() override { unsetenv("QUILLSPEAK_AUDIO"); }

 protected:
  test::SkippingClock clock;
  qs_ns::QS_MediaInterface media;
};

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

TEST_F(MediaInterfaceTest, HasOneSessionOrOneTone) {
  test::clearLog();
  EXPECT_LT(media.playDataMsAudPlaybackSession("", 2), 0);
  EXPECT_EQ(test::countLog(""), 0) << "no session was lost";
  const int tone = media.startMsTone(5);
  EXPECT_GE(tone, 0);
  EXPECT_EQ(media.startMsAudPlaybackSession(), -5) << "it sounds";
  EXPECT_LT(media.startMsTone(5), 0);
  EXPECT_EQ(media.stopMsTone(tone), 0);
  EXPECT_EQ(media.stopMsTone(tone), -1) << "its session is closed";
  EXPECT_EQ(media.startMsAudPlaybackSession(), 0);
  EXPECT_EQ(media.startMsAudPlaybackSession(), 0) << "it is open";
}

}  // namespace
