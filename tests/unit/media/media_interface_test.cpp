// The client of the media server over a media server that does as it is told and notes what it is
// asked.

#include "media/media_interface.h"

#include <syslog.h>

#include <climits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/media_server.h"
#include "support/skipping_clock.h"
#include "support/syslog_capture.h"

namespace {

using namespace std::chrono_literals;
using Calls = std::vector<std::string>;

/// Results by function name, else 0, and the calls in order.
struct FakeMediaServer {
  std::map<std::string, int> results;
  Calls calls;
  const void* data = nullptr;  // of the last send

  template <typename... Arguments>
  int call(const std::string& function, Arguments... arguments) {
    calls.push_back((function + ... + (" " + std::to_string(arguments))));
    return results[function];
  }

  Calls takeCalls() { return std::exchange(calls, {}); }
};

FakeMediaServer server;

class MediaInterfaceTest : public testing::Test {
 protected:
  void SetUp() override {
    server = {};
    test::clearLog();
  }

  /// Opens a session with `handle`.
  void open(int handle) {
    server.results["open"] = handle;
    ASSERT_EQ(media->startMsAudPlaybackSession(), 0);
    server.takeCalls();
  }

  test::SkippingClock clock;
  std::unique_ptr<qs_ns::QS_MediaInterface> media = std::make_unique<qs_ns::QS_MediaInterface>();
};

TEST_F(MediaInterfaceTest, ConnectsAfreshOrKeepsWhatItHas) {
  EXPECT_EQ(media->getVolume(), 512);
  open(4);
  media->setVolume(5);
  server.results = {{"start", -1}, {"stop", -3}};
  EXPECT_FALSE(media->initializeMSInterface());
  EXPECT_EQ(test::countLog("Error while initializing MS interface", LOG_ERR), 1);
  EXPECT_EQ(media->getVolume(), 1124);
  EXPECT_EQ(media->getMsAudPlaybackSession(), 4);

  server.results["start"] = 0;
  EXPECT_TRUE(media->initializeMSInterface());
  EXPECT_EQ(media->getVolume(), 512);
  EXPECT_EQ(media->getMsAudPlaybackSession(), 0);
  EXPECT_EQ(media->cleanupMSInterface(), -3);
  media.reset();
  EXPECT_EQ(server.calls, Calls({"start", "start", "stop", "stop"}));
}

TEST_F(MediaInterfaceTest, HasOneSessionAtATime) {
  server.results["path"] = -1;
  EXPECT_EQ(media->setPathMsAudPlaybackSession(), 0);
  EXPECT_EQ(media->startMsAudPlaybackSession(), -5) << "the server opened none";
  EXPECT_EQ(media->getMsAudPlaybackSession(), 0);
  EXPECT_EQ(test::countLog("Error in starting audio playback session", LOG_ERR), 1);
  server.results = {{"open", -9}, {"close", -1}};
  EXPECT_EQ(media->startMsAudPlaybackSession(), 0);
  EXPECT_EQ(media->startMsAudPlaybackSession(), 0);
  EXPECT_EQ(media->getMsAudPlaybackSession(), -9) << "whatever is not 0 is a session";
  const auto before = clock.now();
  EXPECT_EQ(media->stopMsAudPlaybackSession(), 0);
  EXPECT_EQ(clock.now() - before, 20ms);
  EXPECT_EQ(media->getMsAudPlaybackSession(), 0);
  EXPECT_EQ(media->stopMsAudPlaybackSession(), 0);
  EXPECT_EQ(clock.now() - before, 20ms) << "there was nothing to close";
  EXPECT_EQ(server.takeCalls(), Calls({"path 7 10", "open 2", "open 2", "close -9"}));
  EXPECT_EQ(test::countLog("audio playback session started successfully", LOG_DEBUG), 1);
  EXPECT_EQ(test::countLog("audio playback session stopped successfully", LOG_DEBUG), 1);
}

TEST_F(MediaInterfaceTest, HandsOnDataAndLogsOnceForEachSessionThatDies) {
  server.results["send"] = -9;
  EXPECT_EQ(media->playDataMsAudPlaybackSession("", 1), -9);
  EXPECT_EQ(server.takeCalls(), Calls({"send 0 1"}));
  EXPECT_EQ(test::logLines().size(), 0U) << "no session was lost";
  for (int session = 1; session <= 2; ++session) {
    open(session);
    server.results["send"] = 960;
    const char sound[960] = {};
    EXPECT_EQ(media->playDataMsAudPlaybackSession(sound, 960), 960);
    EXPECT_EQ(server.data, sound);
    EXPECT_EQ(server.calls, Calls({"send " + std::to_string(session) + " 960"}));
    server.results["send"] = -5;
    for (int i = 0; i < 3; ++i)
      EXPECT_EQ(media->playDataMsAudPlaybackSession("", 0), -5);
    EXPECT_EQ(test::countLog("session lost (-5)", LOG_ERR), session);
    media->stopMsAudPlaybackSession();
  }
}

TEST_F(MediaInterfaceTest, MapsLevelsToGains) {
  const std::pair<int, int> gains[] = {{0, 302},     {2, 512},          {5, 1124},
                                       {-100, 0},    {60, 2079621960},  {61, INT_MAX},
                                       {INT_MIN, 0}, {INT_MAX, INT_MAX}};
  for (const auto& [level, gain] : gains) {
    media->setVolume(level);
    EXPECT_EQ(media->getVolume(), gain) << level;
  }
}

TEST_F(MediaInterfaceTest, PlaysTheAlertTone) {
  EXPECT_EQ(media->startMsTone(5), 0) << "0 is a session like any other";
  EXPECT_EQ(server.takeCalls(), Calls({"create 0", "realize 0", "allocate 0", "startTone 0 26 1"}));
  server.results = {{"create", 8}, {"stopTone", -1}};
  EXPECT_EQ(media->startMsTone(5), 8);
  server.takeCalls();
  EXPECT_EQ(media->stopMsTone(8), 0);
  EXPECT_EQ(server.takeCalls(), Calls({"stopTone 8", "closeTone 8"}));
  server.results["closeTone"] = -4;
  EXPECT_EQ(media->stopMsTone(8), -1);
}

TEST_F(MediaInterfaceTest, EndsAToneAtTheFirstStepThatFails) {
  const char* const steps[] = {"create", "realize", "allocate", "startTone"};
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    server.results = {{steps[i], -22}};
    EXPECT_EQ(media->startMsTone(0), i == 0 ? -1 : -22) << steps[i];
    EXPECT_EQ(server.takeCalls().size(), i + 1) << steps[i];
  }
}

}  // namespace

// One line each: they only note the call.
// clang-format off
int ms_start() { return server.call("start"); }
int ms_stop() { return server.call("stop"); }
int ms_openAudPlayback(int stream) { return server.call("open", stream); }
int ms_sendDataToAudPlayback(int handle, const void* data, unsigned int bytes) {
  server.data = data;
  return server.call("send", handle, bytes);
}
int ms_closeAudPlayback(int handle) { return server.call("close", handle); }
int ms_setOutputAudioPath(int device, int path) { return server.call("path", device, path); }
int ms_createToneSession(int kind) { return server.call("create", kind); }
int ms_realizeSession(int session) { return server.call("realize", session); }
int ms_allocateSession(int session) { return server.call("allocate", session); }
int ms_startTone(int session, int tone, int mode) {
  return server.call("startTone", session, tone, mode);
}
int ms_stopSession(int session) { return server.call("stopTone", session); }
int ms_closeSession(int session) { return server.call("closeTone", session); }
// clang-format on
