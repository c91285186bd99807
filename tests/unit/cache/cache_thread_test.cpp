#include "cache/cache_thread.h"

#include <sys/resource.h>
#include <syslog.h>

#include <chrono>
#include <cstddef>
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
using qs_ns::QS_CacheThread;
using Texts = std::vector<std::string>;

/// What builders warned of, the callback's own line aside.
Texts warnings() {
  Texts found;
  for (const LogLine& line : logLines()) {
    if (line.level == LOG_WARNING && line.text.starts_with("QS_CT:")) found.push_back(line.text);
  }
  return found;
}

TEST(CacheThread, BuildsItsSetOfPhrasesInTheOrderOfTheList) {
  struct {
    bool featureOff;
    int first, count;
  } const rows[] = {{false, 0, kPhraseCount}, {true, 40, 2}};
  for (const auto& row : rows) {
    Scene scene;
    int nice = -1;
    scene.speech.at = [&](int synthesis, Stage) {
      if (synthesis == 0) nice = getpriority(PRIO_PROCESS, 0);
    };
    scene.controller.restart(row.featureOff);
    ASSERT_TRUE(
        waitForLog("QS_CT:threadLoop: Number of phrases in cache:" + std::to_string(row.count)));
    EXPECT_EQ(nice, getpriority(PRIO_PROCESS, 0) + 6);
    const auto* first = cachePhraseList.data() + row.first;
    EXPECT_EQ(scene.speech.texts(), Texts(first, first + row.count));
    EXPECT_EQ(phraseCount(), row.count);
    const qs_ns::PhraseSamples last = phrase(first[row.count - 1]);
    ASSERT_EQ(last.count, FakeSpeech::kSamples);
    EXPECT_EQ(last.samples[0], row.count - 1);
    EXPECT_EQ(last.samples[FakeSpeech::kSamples - 1], row.count - 1 + FakeSpeech::kLastSample);
    EXPECT_EQ(warnings(), Texts{});
    EXPECT_EQ(
        countLog("cache_audio_stream_chunk:,Finished TTS stream. Total samples:1200", LOG_DEBUG),
        row.count);
  }
}

TEST(CacheThread, TriesAPhraseAgainAfterTheWaitThatItsFailureAsksFor) {
  const char* const kBusyBefore = "QS_CT:threadLoop: Message queue is busy. Waiting 5 seconds";
  const char* const kBusyAfter =
      "QS_CT:createCacheEntry: Aborted cache and MessageQueue busy. Wait 5 seconds";
  const char* const kNoWave = "QS_CT:createCacheEntry: wav_out=NULL - 8. Wait 10 seconds";
  const Texts kAgain = {"8", "8", "9"};
  struct Row {
    const char* name;
    Stage pauseAt = Stage::none;  // in the first synthesis
    int busyCall = -1;            // the one question whose answer is yes
    Outcome outcome = Outcome::whole;
    std::vector<std::chrono::nanoseconds> waits{};
    Texts warnings{}, texts{};
    int pauseCall = -1;  // the question during which a further pause comes
  };
  const Row rows[] = {
      {.name = "paused early", .pauseAt = Stage::start, .waits = {200ms}, .texts = kAgain},
      {.name = "paused", .pauseAt = Stage::middle, .waits = {200ms}, .texts = kAgain},
      {.name = "paused late", .pauseAt = Stage::last, .waits = {200ms}, .texts = {"8", "9", "9"}},
      {.name = "paused after", .pauseAt = Stage::done, .waits = {200ms}, .texts = {"8", "9", "9"}},
      {.name = "paused, and again when it gave way",
       .pauseAt = Stage::middle,
       .waits = {200ms, 200ms},
       .texts = {"8", "8", "8", "9"},
       .pauseCall = 1},
      // The pause stays for the first synthesis after the busy time.
      {"paused, then busy",
       Stage::middle,
       1,
       Outcome::whole,
       {5s, 200ms},
       {kBusyAfter},
       {"8", "8", "8", "9"}},
      {"busy before", Stage::none, 0, Outcome::whole, {5s}, {kBusyBefore}, {"8", "9"}},
      {"busy after", Stage::none, 1, Outcome::whole, {5s}, {kBusyAfter}, kAgain},
      {"no wave", Stage::none, -1, Outcome::null, {10s}, {kNoWave}, kAgain},
      {"empty wave", Stage::none, -1, Outcome::empty, {10s}, {kNoWave}, kAgain},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FakeClock clock;
    Scene scene;
    scene.speech.at = [&](int synthesis, Stage stage) {
      if (synthesis != 0 || stage == Stage::none || stage != row.pauseAt) return;
      EXPECT_EQ(phraseCount(), 0);
      scene.controller.builder()->pauseThread();
    };
    scene.speech.outcome = [&](int synthesis) {
      return synthesis == 0 ? row.outcome : Outcome::whole;
    };
    scene.controller.busy = [&](int call) {
      if (call == row.pauseCall) scene.controller.builder()->pauseThread();
      return call == row.busyCall;
    };
    scene.controller.restart(true);
    for (const auto wait : row.waits)
      EXPECT_EQ(clock.advanceToNextDeadline(), wait);
    EXPECT_TRUE(waitForLog("Number of phrases in cache:2"));
    EXPECT_EQ(scene.speech.texts(), row.texts);
    EXPECT_EQ(warnings(), row.warnings);
    EXPECT_FALSE(scene.controller.builder()->isPaused());
  }
}

/// Time stands still: only a stop can end a wait, and `gate` tells when one has begun.
class FrozenClock final : public platform::Clock {
 public:
  FrozenClock() {
    gate.open();
    platform::setClock(this);
  }
  ~FrozenClock() override { platform::setClock(nullptr); }
  platform::MonotonicTime now() override { return {}; }
  void sleepFor(std::chrono::nanoseconds) override { ADD_FAILURE() << "a stop cannot end this"; }
  bool waitUntil(platform::Condition& condition, platform::Mutex& mutex,
                 platform::MonotonicTime) override REQUIRES(mutex) {
    // With the waiter's mutex held, which it gives up only inside the wait.
    gate.pass();
    condition.wait(mutex);
    return true;
  }

  Gate gate;
};

TEST(CacheThread, EndsAtOnceWhereverAStopFindsIt) {
  struct Row {
    const char* name;
    Stage stopAt = Stage::none;
    int stopCall = -1;  // in which question whether the queue is busy
    int busyCall = -1;
    Stage pauseAt = Stage::none;
    Outcome outcome = Outcome::whole;
    bool waits = false;  // is it to be stopped in a wait?
    std::size_t syntheses = 1;
    int finished = 0;  // how many of them nobody cut short
  };
  const Row rows[] = {
      {.name = "asking before", .stopCall = 0, .syntheses = 0},
      {.name = "before the voice is had", .stopAt = Stage::start},
      {.name = "in the middle", .stopAt = Stage::middle},
      {.name = "in the last chunk", .stopAt = Stage::last, .finished = 1},
      {.name = "when complete", .stopAt = Stage::done, .finished = 1},
      {.name = "asking after", .stopCall = 1, .finished = 1},
      {.name = "waiting, busy before", .busyCall = 0, .waits = true, .syntheses = 0},
      {.name = "waiting, busy after", .busyCall = 1, .waits = true, .finished = 1},
      {.name = "waiting, no wave", .outcome = Outcome::null, .waits = true},
      {.name = "waiting, paused", .pauseAt = Stage::middle, .waits = true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FrozenClock clock;
    Scene scene;
    scene.speech.at = [&](int, Stage stage) {
      if (stage == Stage::none) return;
      if (stage == row.stopAt) scene.controller.builder()->stopThread();
      if (stage == row.pauseAt) scene.controller.builder()->pauseThread();
    };
    scene.speech.outcome = [&](int) { return row.outcome; };
    scene.controller.busy = [&](int call) {
      if (call == row.stopCall) scene.controller.builder()->stopThread();
      return call == row.busyCall;
    };
    scene.controller.restart();
    if (row.waits) {
      clock.gate.awaitArrival();
      scene.controller.builder()->stopThread();
    }
    scene.controller.line.joinAll();
    EXPECT_EQ(scene.speech.texts().size(), row.syntheses);
    EXPECT_EQ(scene.speech.begun, row.stopAt == Stage::start ? 0 : row.syntheses);
    EXPECT_EQ(countLog("Finished TTS stream"), row.finished);
    EXPECT_EQ(phraseCount(), 0);
    EXPECT_EQ(countLog("QS_CT:createCacheEntry: Detect CacheThread stopped. Terminating"),
              row.waits ? 0 : 1);
    scene.controller.cleanUp();
    EXPECT_EQ(countLog("QS_CT:stopThread: STOP requested", LOG_NOTICE), 1);
  }
}

TEST(CacheThread, ReplacesAPhraseAndLeavesSamplesHandedOutAlone) {
  Scene scene;
  const auto builder = scene.makeBuilder();
  EXPECT_TRUE(builder->createCacheEntry(0));
  const qs_ns::PhraseSamples before = phrase(cachePhraseList[0]);
  EXPECT_EQ(countLog("QS_CT:createCacheEntry: Text match found"), 0);
  EXPECT_TRUE(builder->createCacheEntry(0));
  EXPECT_EQ(countLog("QS_CT:createCacheEntry: Text match found - length=43", LOG_DEBUG), 1);
  EXPECT_EQ(phrase(cachePhraseList[0]).samples[0], 1);
  scene.makeBuilder();
  EXPECT_EQ(phraseCount(), 0);
  EXPECT_EQ(before.samples[FakeSpeech::kSamples - 1], FakeSpeech::kLastSample);
}

TEST(CacheThread, EndsBehindTheListWithoutASynthesis) {
  Scene scene;
  EXPECT_FALSE(scene.makeBuilder()->createCacheEntry(kPhraseCount));
  EXPECT_EQ(scene.speech.texts(), Texts{});
}

TEST(CacheThread, KeepsOutAPhraseThatAReloadOvertakesOnTheWayToTheCache) {
  Scene scene;
  const auto old = scene.makeBuilder();
  std::shared_ptr<QS_CacheThread> next;
  beforeNextLock(&qs_ns::cacheMutex, [&] {
    old->stopThread();
    next = scene.makeBuilder();
  });
  EXPECT_FALSE(old->createCacheEntry(0));
  ASSERT_NE(next, nullptr);
  EXPECT_EQ(phraseCount(), 0);
}

TEST(CacheThread, KeepsOutATextThatAReloadOvertakesOnTheWayToTheCache) {
  Scene scene;
  const auto old = scene.makeBuilder();
  const auto next = scene.makeBuilder();
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
