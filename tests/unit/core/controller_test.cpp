#include "core/controller.h"

#include <cstdlib>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "cache/static_phrase_cache.h"
#include "core/interfaces/bus_release.h"
#include "fake_speech.h"
#include "support/fakes.h"
#include "support/link_seams.h"
#include "support/scratch_folder.h"
#include "support/syslog_capture.h"
#include "support/watched_clock.h"

namespace {

class Controller : public testing::Test {
 protected:
  void SetUp() override {
    test::clearLog();
    setenv("QUILLSPEAK_PROPERTIES", (folder / "properties.conf").c_str(), 1);
  }

  void make(const std::string& properties = "device.accessibility.qs_enabled = true\n") {
    test::writeFile(folder / "properties.conf", properties);
    controller.reset();
    controller.emplace(nullptr, &queue, &media);
  }

  static bool awaitList(int phrases, int times = 1) {
    return test::waitForLog("Number of phrases in cache:" + std::to_string(phrases), times);
  }

  test::ScratchFolder folder;
  test::FakeSpeech speech;
  test::FakeQueue queue;
  test::FakeMedia media;
  std::optional<qs_ns::QS_Controller> controller;
};

TEST_F(Controller, BuildsTheWholeListWhereTheFeatureIsOnAndTwoPhrasesWhereItIsOff) {
  make();
  EXPECT_TRUE(awaitList(51));
  controller->restartCaching(false);
  EXPECT_EQ(test::countLog("STOP requested"), 0) << "it was started already";
  make("");
  EXPECT_TRUE(awaitList(2));
  controller->restartCaching(false);
  EXPECT_TRUE(awaitList(51, 2));
  controller->restartCaching(false);
  EXPECT_EQ(test::countLog("QS_CT:stopThread: STOP requested"), 2)
      << "the first controller's end and the one restart";
}

TEST_F(Controller, FeedsTheWatchdogWhileTheMediaServerDoesNotStart) {
  test::WatchedClock clock(std::chrono::seconds(4));
  media.starts = false;
  make();
  std::chrono::nanoseconds slept{0};
  for (const auto& sleep : clock.sleeps) {
    EXPECT_LE(sleep.duration, std::chrono::seconds(2));
    EXPECT_TRUE(sleep.fed);
    slept += sleep.duration;
  }
  EXPECT_EQ(slept, std::chrono::seconds(15));
  controller.reset();
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
  EXPECT_EQ(test::countLog(gone), 1) << "the one that never had its turn";
  EXPECT_NE(controller->getCacheThread(), nullptr);
  gate.open();
  EXPECT_TRUE(test::waitForLog(gone, 3));
  EXPECT_NE(controller->getCacheThread(), nullptr);
}

TEST_F(Controller, PausesTheBuilderAndThenQueuesARequest) {
  make();
  queue.onAdd = [](const auto&) {
    EXPECT_EQ(test::countLog("QS_CT:pauseThread: PAUSE requested"), 1);
  };
  controller->playMediaFromText({"a"}, 0, 0, 0);
  EXPECT_EQ(queue.added, 1);
}

TEST_F(Controller, EndsTheQueueFirstAndAnswersAfterItsCleanUp) {
  make();
  queue.onStop = [&] {
    EXPECT_NE(controller->getFirUpState(), nullptr) << "a writer may still use it";
  };
  controller->cleanupController();
  controller->cleanupController();
  EXPECT_EQ(queue.stops, 1);
  EXPECT_FALSE(controller->isMessageQueueBusy());
  EXPECT_EQ(controller->getCacheThread(), nullptr);
  EXPECT_EQ(controller->getFirUpState(), nullptr);
  EXPECT_NE(controller->playMediaFromText({"late"}, 0, 0, 0), 0U);
  EXPECT_EQ(queue.added, 0);
  EXPECT_EQ(controller->stopMediaPlaying(1, 0, 0), 0);
  EXPECT_EQ(controller->requestsWaiting(), 0);
}

}  // namespace

void qs_ns::qs_disconnectDBus() {}
