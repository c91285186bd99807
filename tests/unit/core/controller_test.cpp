#include "core/controller.h"

#include <syslog.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "cache/static_phrase_cache.h"
#include "core/interfaces/bus_release.h"
#include "fake_speech.h"
#include "playback/play_request.h"
#include "support/fakes.h"
#include "support/link_seams.h"
#include "support/scratch_folder.h"
#include "support/skipping_clock.h"
#include "support/syslog_capture.h"

namespace {

using namespace std::chrono_literals;

int busReleases = 0;

// Queues are never destroyed through their base, which has no virtual destructor.
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor)
class FakeQueue final : public qs_ns::QS_MessageQueueBase {
 public:
  struct Added {
    std::uint64_t handle;
    std::vector<std::string> texts;
    std::string alertFile;
  };
  std::vector<Added> added;
  std::function<void()> onAdd = [] {};
  std::function<void()> onStop = [] {};
  std::atomic<bool> busy{false};
  int stops = 0;
  unsigned long long stopped = 0;

  void runThread() override {}
  void stopThread() override {
    ++stops;
    onStop();
  }
  void notifyThread(const qs_ns::QS_PlayRequest*) override {}
  int stopPlaying(const unsigned long long& handle) override {
    stopped = handle;
    return 3;
  }
  // A request may have been played and be gone when this returns.
  void addToQueue(std::unique_ptr<qs_ns::QS_PlayRequest> request) override {
    onAdd();
    added.push_back({request->handle, request->textToConvert, request->alertFile});
  }
  bool isBusy() override { return busy; }
  int requestsWaiting() override { return static_cast<int>(added.size()); }
};

class FakeDBus final : public qs_ns::QS_DBusBase {
 public:
  std::tuple<std::vector<std::string>, unsigned, unsigned, unsigned, unsigned, const void*> last;

  void reportPlayRequestResult(const std::vector<std::string>& texts, const unsigned& params,
                               const unsigned& type, const unsigned& flags,
                               const unsigned& resultCode, const void* request) override {
    last = {texts, params, type, flags, resultCode, request};
  }
};

class Controller : public testing::Test {
 protected:
  void SetUp() override {
    test::clearLog();
    busReleases = 0;
    configure("device.accessibility.qs_enabled = true\n");
    setenv("QUILLSPEAK_PROPERTIES", (folder / "properties.conf").c_str(), 1);
  }

  void configure(const std::string& properties) {
    test::writeFile(folder / "properties.conf", properties);
  }

  void make() { controller.emplace(&dbus, &queue, &media); }

  test::ScratchFolder folder;
  test::FakeSpeech speech;
  FakeDBus dbus;
  FakeQueue queue;
  test::FakeMedia media;
  std::optional<qs_ns::QS_Controller> controller;
};

TEST_F(Controller, BuildsTheWholeListWhereTheFeatureIsOnAndTwoPhrasesWhereItIsOff) {
  make();
  EXPECT_TRUE(test::waitForLog("QS_CT:threadLoop: Number of phrases in cache:51"));
  controller->restartCaching(false);
  EXPECT_EQ(test::countLog("STOP requested"), 0) << "it was started already";
  configure("");
  controller.reset();
  make();
  EXPECT_TRUE(test::waitForLog("QS_CT:threadLoop: Number of phrases in cache:2"));
  controller->restartCaching(false);
  EXPECT_TRUE(test::waitForLog("QS_CT:threadLoop: Number of phrases in cache:51", 2));
  controller->restartCaching(false);
  EXPECT_EQ(test::countLog("QS_CT:stopThread: STOP requested"), 2)
      << "the first controller's end and the one restart";
}

TEST_F(Controller, AReloadReplacesTheBuilderAndEmptiesTheDynamicCache) {
  make();
  const auto before = controller->getCacheThread();
  EXPECT_TRUE(before->addDynamicCacheEntry("spoken", test::makeWave(400, 7)));
  controller->reloadConfig(2);
  const auto after = controller->getCacheThread();
  EXPECT_NE(after, before);
  EXPECT_TRUE(before->isStopped());
  EXPECT_FALSE(after->isInDynamicCache("spoken"));
  EXPECT_EQ(busReleases, 0);
}

TEST_F(Controller, ABuilderThatEndsTakesNothingButItselfAway) {
  test::Gate gate;
  speech.at = [&](int synthesis, test::Stage stage) {
    if (synthesis == 0 && stage == test::Stage::start) gate.pass();
  };
  make();
  gate.awaitArrival();
  // A new builder empties the cache, into which the old one must not put anything any more.
  test::beforeNextLock(&qs_ns::cacheMutex,
                       [old = controller->getCacheThread()] { EXPECT_TRUE(old->isStopped()); });
  for (int i = 0; i < 3; ++i)
    controller->reloadConfig(0);
  const char* const gone = "reportCachingComplete: cacheThread destroyed and cleared";
  EXPECT_EQ(test::countLog(gone, LOG_NOTICE), 1) << "the one that never had its turn";
  EXPECT_NE(controller->getCacheThread(), nullptr);
  gate.open();
  EXPECT_TRUE(test::waitForLog(gone, 3));
  EXPECT_NE(controller->getCacheThread(), nullptr);
}

// It dies inside the reload, and its end takes the lock under which it was replaced.
TEST_F(Controller, AReloadReplacesABuilderThatNeverRan) {
  test::failThread(1);
  make();
  controller->reloadConfig(0);
  EXPECT_TRUE(test::waitForLog("QS_CT:threadLoop: Number of phrases in cache:51"));
}

TEST_F(Controller, CachingCanBeTurnedOff) {
  configure("qs_cache = disable\ndevice.accessibility.qs_enabled = true\n");
  make();
  EXPECT_FALSE(controller->isCacheEnabled());
  const auto before = controller->getCacheThread();
  controller->reloadConfig(0);
  EXPECT_EQ(controller->getCacheThread(), before);
  configure("qs_cache = Disable\n");
  controller.reset();
  make();
  EXPECT_TRUE(controller->isCacheEnabled()) << "only that very word turns it off";
}

TEST_F(Controller, AnOddReloadAsksForTheBusNameToBeGivenUp) {
  make();
  const auto before = controller->getCacheThread();
  for (const int flags : {1, 3, -1})
    controller->reloadConfig(flags);
  EXPECT_EQ(busReleases, 3);
  EXPECT_EQ(controller->getCacheThread(), before);
  EXPECT_EQ(test::countLog("reloadConfig: Automation trigger detected:-1"), 1);
}

TEST_F(Controller, GivesUpOnTheMediaServerAfterThreeAttemptsAndGoesOn) {
  const test::SkippingClock clock;
  media.connects = false;
  const auto before = platform::clock().now();
  configure("");
  make();
  EXPECT_EQ(platform::clock().now() - before, 15s);
  EXPECT_EQ(
      test::countLog("initializeMSWithController: failed. Trying again in 5 seconds", LOG_WARNING),
      3);
  EXPECT_EQ(test::countLog("initializeMSWithController: Could not intializeMSController", LOG_ERR),
            1);
  EXPECT_NE(controller->getFirUpState(), nullptr);
  controller.reset();
}

TEST_F(Controller, TriesThreeTimesToOpenASession) {
  const test::SkippingClock clock;
  configure("");
  make();
  media.opens = false;
  const auto before = platform::clock().now();
  EXPECT_EQ(controller->startMsAudPlayback(), -10);
  EXPECT_EQ(platform::clock().now() - before, 150ms);
  EXPECT_EQ(test::countLog("startMsAudPlayback: failed to open audio playback session", LOG_ERR),
            1);
  media.opens = true;
  EXPECT_EQ(controller->startMsAudPlayback(), 0);
  EXPECT_EQ(controller->startMsAudPlayback(), 0);
  EXPECT_EQ(media.opened.value(), 1);
  controller.reset();
}

TEST_F(Controller, PausesTheBuilderAndThenQueuesARequestAsItCame) {
  make();
  queue.onAdd = [] { EXPECT_EQ(test::countLog("QS_CT:pauseThread: PAUSE requested"), 1); };
  const std::uint64_t handle = controller->playMediaFromText({"a", "b"}, 13, -7, 6);
  ASSERT_EQ(queue.added.size(), 1U);
  EXPECT_EQ(queue.added[0].handle, handle);
  EXPECT_EQ(queue.added[0].texts, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(queue.added[0].alertFile, "/usr/mbin/data/rt/error_mono.raw");
  EXPECT_EQ(controller->stopMediaPlaying(handle, 0, 0), 3);
  EXPECT_EQ(queue.stopped, handle);
  EXPECT_EQ(controller->requestsWaiting(), 1);
}

TEST_F(Controller, HandsResultAndVolumeOn) {
  make();
  const qs_ns::QS_PlayRequest request({"a", "b"}, nullptr, 13, -7, 6);
  controller->reportPlayRequestResult(&request, 1);
  EXPECT_EQ(dbus.last, std::make_tuple(request.textToConvert, 13U, 4294967289U, 6U, 1U,
                                       static_cast<const void*>(&request)));
  controller->setVolume(5);
  EXPECT_EQ(media.volume, 5);
  EXPECT_EQ(controller->getMediaIF(), &media);
}

TEST_F(Controller, EndsTheQueueFirstAndAnswersAfterItsCleanUp) {
  queue.busy = true;
  make();
  queue.onStop = [&] {
    EXPECT_TRUE(controller->isMessageQueueBusy());
    EXPECT_NE(controller->getFirUpState(), nullptr) << "a writer may still use it";
  };
  controller->cleanupController();
  controller->cleanupController();
  EXPECT_EQ(queue.stops, 1);
  EXPECT_EQ(test::countLog("cleanupController: Stopping MessageQueueThread", LOG_WARNING), 1);
  EXPECT_FALSE(controller->isMessageQueueBusy());
  EXPECT_EQ(controller->getCacheThread(), nullptr);
  EXPECT_EQ(controller->getFirUpState(), nullptr);
  EXPECT_NE(controller->playMediaFromText({"late"}, 0, 0, 0), 0U);
  EXPECT_EQ(test::countLog("mThread is null", LOG_ERR), 1);
  EXPECT_TRUE(queue.added.empty());
  EXPECT_EQ(controller->stopMediaPlaying(1, 0, 0), 0);
  EXPECT_EQ(controller->requestsWaiting(), 0);
}

}  // namespace

void qs_ns::qs_disconnectDBus() {
  ++busReleases;
}
