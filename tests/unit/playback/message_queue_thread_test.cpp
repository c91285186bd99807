#include "playback/message_queue_thread.h"

#include <thread>

#include <gtest/gtest.h>

#include "fake_speech.h"
#include "playback/precedence.h"
#include "support/fake_clock.h"
#include "support/fakes.h"
#include "support/link_seams.h"
#include "support/syslog_capture.h"

namespace {

using namespace std::chrono_literals;
using qs_ns::QS_MessageQueueThread;

using Reports = std::vector<test::FakeController::Report>;
using Texts = std::vector<std::string>;

constexpr char kTearsDown[] = "stopThread: Notifying any streamTTSThread if any to stop";

struct Scene {
  Scene() {
    test::clearLog();
    queue.setController(&controller);
  }
  ~Scene() { queue.stopThread(); }
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;

  std::uint64_t add(const char* text, std::int32_t flags = 0) {
    auto request = test::makeRequest({text}, flags);
    const std::uint64_t handle = request->handle;
    queue.addToQueue(std::move(request));
    return handle;
  }

  /// Starts the queue with a request that plays until `open` is called on `playing`.
  std::uint64_t startWithOnePlaying(std::int32_t flags = 0) {
    speech.at = [this](int synthesis, test::Stage stage) {
      if (synthesis == 0 && stage == test::Stage::middle) playing.pass();
    };
    const std::uint64_t handle = add("playing", flags);
    queue.runThread();
    playing.awaitArrival();
    return handle;
  }

  void awaitIdle(int finished) { controller.restarts.await(finished); }

  test::FakeSpeech speech;
  test::FakeController controller;
  test::Gate playing;
  QS_MessageQueueThread queue;
  std::jthread tearDown;
};

class PlayQueue : public testing::Test, protected Scene {};

TEST(PlayQueueOrder, PlaysWhatDoesNotGiveWay) {
  struct Request {
    const char* text;
    int flags;
    bool queuedOnly = false;  // without a look at who gives way
    bool stopped = false;
  };
  const struct {
    int playingFlags;
    std::vector<Request> added;
    int waiting;
    Texts played;
    int firstResult;
  } rows[] = {
      {0, {{"a", 0}, {"b", 0}, {"c", 0}}, 1, {"playing", "c"}, 1},
      {0, {{"polite", 1}}, 1, {"playing", "polite"}, 0},
      // The polite one gives way to the protected one.
      {0, {{"polite", 1}, {"protected", 2}, {"a", 0}}, 2, {"playing", "protected", "a"}, 1},
      {2, {{"a", 0}, {"gone", 1, false, true}}, 1, {"playing", "a"}, 0},
      // The walk stops at the first that stays, and the taker drops what stood behind it.
      {0, {{"a", 0, true}, {"b", 2, true}, {"c", 0}}, 3, {"playing", "b", "c"}, 1},
      // One that was stopped is forgotten as the last added.
      {0, {{"a", 0, true}, {"b", 2, true}, {"c", 0, false, true}}, 2, {"playing", "a", "b"}, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    Scene scene;
    const std::uint64_t first = scene.startWithOnePlaying(row.playingFlags);
    for (const Request& request : row.added) {
      if (request.queuedOnly) {
        scene.queue.getPlayQueue().add(test::makeRequest({request.text}, request.flags));
        continue;
      }
      const std::uint64_t handle = scene.add(request.text, request.flags);
      if (request.stopped) scene.queue.stopPlaying(handle);
    }
    EXPECT_EQ(scene.queue.requestsWaiting(), row.waiting);
    scene.playing.open();
    const auto played = static_cast<int>(row.played.size());
    scene.awaitIdle(played);
    EXPECT_EQ(scene.speech.texts, row.played);
    const Reports reports = scene.controller.reports;
    EXPECT_EQ(reports.front(), std::pair(first, row.firstResult));
    EXPECT_EQ(static_cast<int>(reports.size()), played);
  }
}

TEST(Precedence, FollowsTheTable) {
  constexpr bool kGivesWay[4][4] = {{true, false, true, true},
                                    {true, true, true, true},
                                    {false, false, false, false},
                                    {false, false, false, false}};
  for (int existing = 0; existing < 4; ++existing) {
    for (int newer = 0; newer < 4; ++newer) {
      EXPECT_EQ(qs_ns::givesWay(existing | 0xC, newer | 0x7FFFFFF4), kGivesWay[existing][newer])
          << existing << " against " << newer;
    }
  }
}

/// Between the taking of a request and its streaming object: what comes then is noted.
TEST(TakenRequest, LosesNothingThatComesMeanwhile) {
  const struct {
    std::function<void(Scene&, std::uint64_t)> meanwhile;
    int result;
    Texts played;
  } rows[] = {{[](Scene& scene, std::uint64_t handle) { scene.queue.stopPlaying(handle); }, 1, {}},
              {[](Scene& scene, std::uint64_t) {
                 scene.add("displaces", 2);
                 scene.add("polite", 1);
               },
               1,
               {"displaces", "polite"}},
              {[](Scene& scene, std::uint64_t handle) {
                 scene.queue.stopPlaying(handle + 1);
                 scene.add("polite", 1);
               },
               0,
               {"taken", "polite"}},
              {[](Scene& scene, std::uint64_t) {
                 scene.tearDown = std::jthread([&] { scene.queue.stopThread(); });
                 EXPECT_TRUE(test::waitForLog(kTearsDown));
                 EXPECT_TRUE(scene.queue.isBusy())
                     << "asked under the lock that notes the tear-down";
               },
               1,
               {}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    Scene scene;
    const std::uint64_t handle = scene.add("taken");
    bool first = true;
    scene.controller.onStartPlayback = [&] {
      if (std::exchange(first, false)) row.meanwhile(scene, handle);
    };
    scene.queue.runThread();
    // One that is stopped here has not asked for speech.
    scene.awaitIdle(static_cast<int>(row.played.size()) + row.result);
    EXPECT_EQ(scene.controller.reports.front(), std::pair(handle, row.result));
    EXPECT_EQ(scene.speech.texts, row.played);
  }
}

/// Between the look at a queue that holds a request and its taking.
class FoundRequest : public PlayQueue {
 protected:
  /// Adds a request and runs the queue, calling `meanwhile` when its thread is about to take it.
  void runWith(const std::function<void(std::uint64_t)>& meanwhile) {
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
  EXPECT_EQ(speech.texts, Texts{"next"});
}

TEST_F(FoundRequest, IsNotTakenAfterTheTearDown) {
  test::Tally begun;
  runWith([&](std::uint64_t) {
    tearDown = std::jthread([this] { queue.stopThread(); });
    EXPECT_TRUE(test::waitForLog(kTearsDown));
    EXPECT_FALSE(queue.isBusy());
    begun.add();
  });
  begun.await(1);
  tearDown.join();
  EXPECT_EQ(speech.texts, Texts{});
}

TEST_F(PlayQueue, ARequestWhoseSessionDoesNotOpenIsForgotten) {
  controller.media.opens = false;
  const std::uint64_t dropped = add("dropped");
  controller.onStartPlayback = [&] { queue.stopPlaying(dropped); };
  queue.runThread();
  ASSERT_TRUE(test::waitForLog("Error in startMsRTPSession()"));
  queue.stopThread();
  queue.stopPlaying(dropped);
  EXPECT_TRUE(controller.reports.empty());
  EXPECT_FALSE(queue.isBusy());
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

}  // namespace
