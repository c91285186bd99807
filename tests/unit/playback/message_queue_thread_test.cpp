#include "playback/message_queue_thread.h"

#include <syslog.h>

#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include "fake_engine.h"
#include "support/background.h"
#include "support/fake_clock.h"
#include "support/fakes.h"
#include "support/link_seams.h"
#include "support/syslog_capture.h"

namespace {

using namespace std::chrono_literals;
using qs_ns::QS_MessageQueueThread;
using test::FakeEngine;

class PlayQueue : public testing::Test {
 protected:
  void SetUp() override {
    test::clearLog();
    queue.setController(&controller);
  }
  void TearDown() override { queue.stopThread(); }

  std::uint64_t add(const std::string& text, std::int32_t flags = 0) {
    auto request = test::makeRequest({text}, flags);
    const std::uint64_t handle = request->handle;
    queue.addToQueue(std::move(request));
    return handle;
  }

  /// Starts the queue with a request that plays until `open` is called on `playing`.
  std::uint64_t startWithOnePlaying(std::int32_t flags = 0) {
    engine.onChunk = [this](const std::string& text, int chunk) {
      if (text == "playing" && chunk == 1) playing.pass();
    };
    const std::uint64_t handle = add("playing", flags);
    queue.runThread();
    playing.awaitArrival();
    return handle;
  }

  void awaitIdle(int finished) { controller.restarts.await(finished); }

  using Reports = std::vector<test::FakeController::Report>;

  FakeEngine engine;
  test::FakeController controller;
  test::Gate playing;
  QS_MessageQueueThread queue;
};

TEST_F(PlayQueue, TheLastOfSeveralEqualRequestsInterruptsAndDisplacesTheOthers) {
  const std::uint64_t first = startWithOnePlaying();
  add("second");
  add("third");
  const std::uint64_t last = add("last");
  EXPECT_EQ(queue.requestsWaiting(), 1);
  playing.open();
  awaitIdle(2);
  EXPECT_EQ(controller.reports(), (Reports{{first, 1}, {last, 0}}));
  EXPECT_EQ(engine.texts, (std::vector<std::string>{"playing", "last"}));
  EXPECT_EQ(controller.media.opened.value(), 2);
  EXPECT_EQ(controller.media.closed.value(), 2);
}

TEST_F(PlayQueue, APoliteRequestWaitsAndAProtectedOneIsNeverDisplaced) {
  const std::uint64_t first = startWithOnePlaying();
  add("polite", 1);
  const std::uint64_t guarded = add("protected", 2);
  const std::uint64_t newest = add("newest", 0);
  playing.open();
  awaitIdle(3);
  EXPECT_EQ(controller.reports(), (Reports{{first, 1}, {guarded, 0}, {newest, 0}}))
      << "the polite one gave way to the protected one";
}

TEST_F(PlayQueue, TheWalkStopsAtTheFirstThatStaysAndTheTakerDropsWhatStoodBehindIt) {
  const std::uint64_t first = startWithOnePlaying();
  queue.getPlayQueue().add(test::makeRequest({"X"}, 0));
  auto shield = test::makeRequest({"Y"}, 2);
  const std::uint64_t y = shield->handle;
  queue.getPlayQueue().add(std::move(shield));
  const std::uint64_t z = add("Z", 0);
  EXPECT_EQ(queue.requestsWaiting(), 3);
  playing.open();
  awaitIdle(3);
  EXPECT_EQ(controller.reports(), (Reports{{first, 1}, {y, 0}, {z, 0}}));
  EXPECT_EQ(test::countLog("just_added found to be higher precedence"), 1);
}

TEST_F(PlayQueue, AStopRemovesAQueuedRequestInSilenceAndEndsThePlayingOne) {
  const std::uint64_t first = startWithOnePlaying(2);
  const std::uint64_t queued = add("queued", 1);
  EXPECT_EQ(queue.stopPlaying(queued), 0);
  EXPECT_EQ(queue.stopPlaying(queued), 0);
  EXPECT_EQ(queue.stopPlaying(12345), 0);
  EXPECT_EQ(queue.requestsWaiting(), 0);
  EXPECT_EQ(queue.stopPlaying(first), 0) << "protected from newer requests, not from a stop";
  playing.open();
  awaitIdle(1);
  EXPECT_EQ(controller.reports(), (Reports{{first, 1}}));
  EXPECT_EQ(test::countLog("But deleting the request"), 1);
}

/// Between the taking of a request and its streaming object: what comes then is noted.
class TakenRequest : public PlayQueue {
 protected:
  /// Runs one request, calling `meanwhile` while it is taken but not current.
  Reports runWith(const std::function<void(std::uint64_t)>& meanwhile, int finished) {
    const std::uint64_t handle = add("taken");
    bool first = true;
    controller.onStartPlayback = [&] {
      if (std::exchange(first, false)) meanwhile(handle);
    };
    queue.runThread();
    awaitIdle(finished);
    return controller.reports();
  }
};

TEST_F(TakenRequest, AStopByItsHandleIsNotLost) {
  const Reports reports = runWith([this](std::uint64_t handle) { queue.stopPlaying(handle); }, 1);
  ASSERT_EQ(reports.size(), 1U);
  EXPECT_EQ(reports[0].second, 1);
  EXPECT_TRUE(engine.texts.empty());
}

TEST_F(TakenRequest, ADisplacementIsNotLostWhereALaterRequestDoesNotDisplace) {
  const Reports reports = runWith(
      [this](std::uint64_t) {
        add("displaces", 2);
        add("polite", 1);
      },
      3);
  ASSERT_EQ(reports.size(), 3U);
  EXPECT_EQ(reports[0].second, 1);
  EXPECT_EQ(engine.texts, (std::vector<std::string>{"displaces", "polite"}));
}

TEST_F(TakenRequest, AStopOfAnotherAndAPoliteRequestLeaveItAlone) {
  const Reports reports = runWith(
      [this](std::uint64_t handle) {
        queue.stopPlaying(handle + 1);
        add("polite", 1);
      },
      2);
  ASSERT_EQ(reports.size(), 2U);
  EXPECT_EQ(reports[0].second, 0);
}

TEST_F(TakenRequest, TheTearDownIsNotLost) {
  std::optional<std::thread> tearDown;
  const std::uint64_t handle = add("taken");
  controller.onStartPlayback = [&] {
    tearDown.emplace([this] { queue.stopThread(); });
    EXPECT_TRUE(test::waitForLog("stopThread: Notifying any streamTTSThread if any to stop"));
    EXPECT_TRUE(queue.isBusy()) << "asked under the lock under which the tear-down is noted";
  };
  queue.runThread();
  awaitIdle(1);
  tearDown->join();
  EXPECT_EQ(controller.reports(), (Reports{{handle, 1}}));
  EXPECT_TRUE(engine.texts.empty());
}

/// Between the look at a queue that holds a request and its taking.
class FoundRequest : public PlayQueue {
 protected:
  /// Adds a request and runs the queue, calling `meanwhile` when its thread is about to take it.
  void runWith(std::function<void(std::uint64_t)> meanwhile) {
    const std::uint64_t handle = add("found");
    queue.isBusy();
    test::beforeNextLock(test::lastLocked(), [=] { meanwhile(handle); });
    queue.runThread();
  }
};

TEST_F(FoundRequest, MayBeGoneByThen) {
  const int waits = test::waitsBegun().value();
  runWith([this](std::uint64_t handle) { queue.stopPlaying(handle); });
  test::waitsBegun().await(waits + 1);
  EXPECT_FALSE(queue.isBusy());
  add("next");
  awaitIdle(1);
  EXPECT_EQ(engine.texts, std::vector<std::string>{"next"});
}

TEST_F(FoundRequest, IsNotTakenAfterTheTearDown) {
  std::optional<std::thread> tearDown;
  test::Tally begun;
  runWith([&](std::uint64_t) {
    tearDown.emplace([this] { queue.stopThread(); });
    EXPECT_TRUE(test::waitForLog("stopThread: Notifying any streamTTSThread if any to stop"));
    EXPECT_FALSE(queue.isBusy());
    begun.add();
  });
  begun.await(1);
  tearDown->join();
  EXPECT_EQ(controller.media.opened.value(), 0);
  EXPECT_TRUE(engine.texts.empty());
}

TEST_F(PlayQueue, ARequestWhoseSessionDoesNotOpenIsDroppedInSilence) {
  controller.media.opens = false;
  const std::uint64_t dropped = add("dropped");
  controller.onStartPlayback = [&] { queue.stopPlaying(dropped); };
  queue.runThread();
  ASSERT_TRUE(test::waitForLog("Error in startMsRTPSession()"));
  queue.stopPlaying(dropped);
  queue.stopThread();
  queue.stopPlaying(dropped);
  EXPECT_TRUE(controller.reports().empty());
  EXPECT_FALSE(queue.isBusy());
}

TEST_F(PlayQueue, TheTearDownStopsThePlayingRequestAndTakesNoMore) {
  const std::uint64_t first = startWithOnePlaying();
  add("queued", 1);
  test::Background tearDown([this] { queue.stopThread(); });
  ASSERT_TRUE(test::waitForLog("stopThread: Received new command, stop the current thread"));
  playing.open();
  tearDown.get();
  EXPECT_EQ(controller.reports(), (Reports{{first, 1}}));
  EXPECT_EQ(engine.texts, std::vector<std::string>{"playing"});
}

TEST_F(PlayQueue, AnExhaustedQueueEndsTheThreadAndSaysWhy) {
  queue.runThread();
  queue.getPlayQueue().markExhausted();
  ASSERT_TRUE(test::waitForLog("Queue is marked as exhausted. Terminating thread"));
  EXPECT_EQ(test::countLog("Queue could not be read.", LOG_ERR), 1);
  queue.stopThread();
  queue.stopThread();
  EXPECT_EQ(test::countLog("Marking play_queue exhausted"), 1);
}

TEST_F(PlayQueue, ARequestAddedWhileTheSessionOfThePlayedOneClosesLeavesItsResultAlone) {
  std::uint64_t next = 0;
  controller.media.onClose = [&] {
    if (next == 0) next = add("next");
  };
  const std::uint64_t first = add("first");
  queue.runThread();
  awaitIdle(2);
  EXPECT_EQ(controller.reports(), (Reports{{first, 0}, {next, 0}}));
}

TEST_F(PlayQueue, AStoppedRequestIsForgottenAsTheLastAdded) {
  startWithOnePlaying();
  queue.getPlayQueue().add(test::makeRequest({"X"}, 0));
  queue.getPlayQueue().add(test::makeRequest({"Y"}, 2));
  queue.stopPlaying(add("Z", 0));
  playing.open();
  awaitIdle(3);
  EXPECT_EQ(engine.texts, (std::vector<std::string>{"playing", "X", "Y"}));
}

TEST_F(PlayQueue, IsBusyWhileItPlaysAndForFiveSecondsAfter) {
  test::FakeClock clock;
  EXPECT_FALSE(queue.isBusy()) << "never played is not played at time 0";
  startWithOnePlaying();
  EXPECT_TRUE(queue.isBusy());
  playing.open();
  awaitIdle(1);
  EXPECT_TRUE(queue.isBusy());
  clock.advance(4999ms);
  EXPECT_TRUE(queue.isBusy());
  clock.advance(1ms);
  EXPECT_FALSE(queue.isBusy());
  queue.stopThread();
}

TEST(PlayRequestHandle, IsUniqueNeverZeroAndStartsInTheLowerHalf) {
  const auto one = test::makeRequest({});
  const auto two = test::makeRequest({});
  EXPECT_NE(one->handle, 0U);
  EXPECT_EQ(two->handle, one->handle + 1);
  EXPECT_LT(one->handle, std::uint64_t{1} << 63);
}

}  // namespace
