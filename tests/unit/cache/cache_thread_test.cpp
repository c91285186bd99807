#include "cache/cache_thread.h"

#include <sys/resource.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "cache/phrase_list.h"
#include "cache_fixture.h"
#include "support/fake_clock.h"

namespace test {
namespace {

using namespace std::chrono_literals;
using qs_ns::cachePhraseList;
using qs_ns::kPhraseCount;
using Texts = std::vector<std::string>;

TEST(CacheThread, BuildsItsSetOfPhrasesInTheOrderOfTheList) {
  struct {
    bool featureOff;
    int first, count;
  } const rows[] = {{false, 0, kPhraseCount}, {true, 40, 2}};
  for (const auto& row : rows) {
    Scene scene;
    int nice = -1;
    scene.speech.at = [&](int, Stage) { nice = getpriority(PRIO_PROCESS, 0); };
    scene.controller.restart(row.featureOff);
    scene.controller.line.joinAll();
    EXPECT_EQ(nice, getpriority(PRIO_PROCESS, 0) + 6);
    EXPECT_EQ(scene.speech.lastUserData.speed, FakeSpeech::kSpeed);
    const auto* first = cachePhraseList.data() + row.first;
    EXPECT_EQ(scene.speech.texts, Texts(first, first + row.count));
    EXPECT_EQ(phraseCount(), row.count);
    const platform::MutexLock lock(qs_ns::cacheMutex);
    const qs_ns::PhraseSamples last = qs_ns::static_cache::find(first[row.count - 1]);
    ASSERT_EQ(last.count, FakeSpeech::kSamples);
    EXPECT_EQ(last.samples[0], *first[row.count - 1]);
    EXPECT_EQ(last.samples[FakeSpeech::kSamples - 1], row.count - 1);
  }
}

// Most of it is the table.
// NOLINTNEXTLINE(readability-function-cognitive-complexity)
TEST(CacheThread, TriesAPhraseAgainAfterEveryFailureAndEndsWhereverAStopFindsIt) {
  const Texts kOne = {"8"};
  const Texts kAgain = {"8", "8", "9"};
  struct Row {
    const char* name;
    Stage pauseAt = Stage::none;  // in the first synthesis
    int pauseCall = -1;           // in which question whether the queue is busy
    int busyCall = -1;            // the one question whose answer is yes
    Outcome outcome = Outcome::whole;
    std::vector<std::chrono::nanoseconds> waits{};
    Texts texts{};
    Stage stopAt = Stage::none;
    bool stopsInWait = false;
  };
  using enum Stage;
  const Row rows[] = {
      {.name = "paused early", .pauseAt = start, .waits = {200ms}, .texts = kAgain},
      {.name = "paused", .pauseAt = middle, .waits = {200ms}, .texts = kAgain},
      {.name = "paused late", .pauseAt = last, .waits = {200ms}, .texts = {"8", "9", "9"}},
      {.name = "paused after", .pauseAt = done, .waits = {200ms}, .texts = {"8", "9", "9"}},
      {"paused twice", middle, 1, -1, Outcome::whole, {200ms, 200ms}, {"8", "8", "8", "9"}},
      // The pause stays for the first synthesis after the busy time.
      {"paused, then busy", middle, -1, 1, Outcome::whole, {5s, 200ms}, {"8", "8", "8", "9"}},
      {.name = "busy before", .busyCall = 0, .waits = {5s}, .texts = {"8", "9"}},
      {.name = "busy after", .busyCall = 1, .waits = {5s}, .texts = kAgain},
      {.name = "no wave", .outcome = Outcome::null, .waits = {10s}, .texts = kAgain},
      {.name = "empty wave", .outcome = Outcome::empty, .waits = {10s}, .texts = kAgain},
      {.name = "stopped before the voice is had", .texts = kOne, .stopAt = start},
      {.name = "stopped in the middle", .texts = kOne, .stopAt = middle},
      {.name = "stopped in the last chunk", .texts = kOne, .stopAt = last},
      {.name = "stopped when complete", .texts = kOne, .stopAt = done},
      {.name = "waiting, busy before", .busyCall = 0, .stopsInWait = true},
      {.name = "waiting, busy after", .busyCall = 1, .texts = kOne, .stopsInWait = true},
      {.name = "waiting, no wave", .outcome = Outcome::null, .texts = kOne, .stopsInWait = true},
      {.name = "waiting, paused", .pauseAt = middle, .texts = kOne, .stopsInWait = true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FakeClock clock;
    Scene scene;
    BuilderOwner& controller = scene.controller;
    scene.speech.at = [&](int synthesis, Stage stage) {
      EXPECT_TRUE(stage == done || !controller.builder()->isStopped()) << "it went on";
      if (synthesis == 0 && stage == row.stopAt) controller.builder()->stopThread();
      if (synthesis == 0 && stage == row.pauseAt) controller.builder()->pauseThread();
    };
    scene.speech.outcome = [&](int synthesis) {
      return synthesis == 0 ? row.outcome : Outcome::whole;
    };
    controller.busy = [&](int call) {
      if (call == row.pauseCall) controller.builder()->pauseThread();
      return call == row.busyCall;
    };
    controller.restart(true);
    for (const auto wait : row.waits)
      EXPECT_EQ(clock.advanceToNextDeadline(), wait);
    if (row.stopsInWait) {
      clock.awaitDeadline();
      controller.builder()->stopThread();
    }
    controller.line.joinAll();
    EXPECT_EQ(scene.speech.texts, row.texts);
    EXPECT_EQ(phraseCount(), controller.builder()->isStopped() ? 0 : 2);
    EXPECT_FALSE(controller.builder()->isPaused());
  }
}

// Were it to wait on, the test would run out of time.
TEST(CacheThread, WaitsForTheVoiceBehindSpeechUntilItIsStopped) {
  Scene scene;
  qs_ns::voiceMutex.beginSpeech();
  const int waits = waitsBegun().value();
  scene.controller.restart();
  waitsBegun().await(waits + 1);
  scene.controller.builder()->stopThread();
  scene.controller.line.joinAll();
  qs_ns::voiceMutex.endSpeech();
  EXPECT_EQ(scene.speech.texts.size(), 1U);
}

TEST(CacheThread, KeepsOutAPhraseThatAReloadOvertakesOnTheWayToTheCache) {
  Scene scene;
  const auto old = scene.controller.makeBuilder();
  std::shared_ptr<qs_ns::QS_CacheThread> next;
  beforeNextLock(&qs_ns::cacheMutex, [&] {
    old->stopThread();
    next = scene.controller.makeBuilder();
  });
  EXPECT_FALSE(old->createCacheEntry(0));
  ASSERT_NE(next, nullptr);
  EXPECT_EQ(phraseCount(), 0);
}

TEST(CacheThread, KeepsOutATextThatAReloadOvertakesOnTheWayToTheCache) {
  Scene scene;
  const auto old = scene.controller.makeBuilder();
  const auto next = scene.controller.makeBuilder();
  beforeNextLock(&qs_ns::dynamicCacheMutex, [&] {
    old->stopThread();
    next->clearDynamicPhraseCache();
  });
  EXPECT_FALSE(old->addDynamicCacheEntry("Ada", makeWave(10, 1)));
  EXPECT_TRUE(old->isStopped());
  EXPECT_EQ(next->getDynamicPhraseCacheSize(), 0);
  EXPECT_TRUE(next->addDynamicCacheEntry("Ada", makeWave(10, 2)));
  EXPECT_EQ(old->getDynamicCache("Ada").samples[0], 2);
}

}  // namespace
}  // namespace test
