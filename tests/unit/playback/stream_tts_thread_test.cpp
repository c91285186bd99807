#include "playback/stream_tts_thread.h"

#include <syslog.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>

#include <gtest/gtest.h>

#include "fake_engine.h"
#include "support/background.h"
#include "support/fakes.h"
#include "support/link_seams.h"
#include "support/scratch_folder.h"
#include "support/syslog_capture.h"

namespace {

using qs_ns::DynamicPhraseCache;
using qs_ns::QS_StreamTTSThread;
using qs_ns::Wave;
using test::FakeEngine;

/// The dynamic cache as a map; says how it was used.
class FakeCache final : public qs_ns::QS_CacheThreadBase {
 public:
  std::map<std::string, DynamicPhraseCache> entries;
  std::vector<std::string> added;
  std::vector<std::string> refreshed;

  void put(const std::string& text, int count, std::int16_t value) {
    auto samples = std::make_shared<std::int16_t[]>(static_cast<std::size_t>(count), value);
    entries[text] = {text, std::move(samples), count};
  }

  int stopThread() override { return 0; }
  bool isStopped() const override { return false; }
  void pauseThread() override {}
  bool isPaused() const override { return false; }
  int runThread() override { return 0; }
  bool addDynamicCacheEntry(std::string text, Wave wave) override {
    EXPECT_EQ(wave->num_samples, FakeEngine::kTextSamples);
    added.push_back(text);
    return true;
  }
  bool refreshDynamicCacheText(std::string text, std::shared_ptr<const std::int16_t[]>,
                               int) override {
    refreshed.push_back(text);
    return true;
  }
  bool isInDynamicCache(std::string text) override { return entries.count(text) != 0; }
  DynamicPhraseCache getDynamicCache(std::string text) override { return entries[text]; }
  int getDynamicPhraseCacheSize() override { return static_cast<int>(entries.size()); }
  void clearDynamicPhraseCache() override { entries.clear(); }
};

/// How many of the samples that were heard came from a text or entry of that value, with the gain
/// at its upper end so that scaled values can be told apart.
int heard(const test::FakeController& controller, char value) {
  const auto samples = controller.media.samples();
  // Once settled, the gain is 1024 - 10 at least, so a value comes out within 1 %.
  return static_cast<int>(std::count_if(samples.begin(), samples.end(), [value](int sample) {
    return sample >= value - 2 && sample <= value;
  }));
}

class Streaming : public testing::Test {
 protected:
  void SetUp() override {
    test::clearLog();
    controller.media.volume = 1024;
    controller.cache = cache;
    const platform::MutexLock hold(qs_ns::cacheMutex);
    (void)qs_ns::static_cache::clear();
  }

  void make(std::vector<std::string> texts, std::int32_t flags = 0, const char* alert = nullptr) {
    stream = std::make_unique<QS_StreamTTSThread>(
        &controller, test::makeRequest(std::move(texts), flags, alert));
  }
  /// Plays to the end and destroys the stream; the results that were reported.
  std::vector<int> finish() {
    stream->executeStream();
    return destroy();
  }
  std::vector<int> destroy() {
    stream.reset();
    std::vector<int> results;
    for (const auto& report : controller.reports())
      results.push_back(report.second);
    return results;
  }

  FakeEngine engine;
  test::FakeController controller;
  std::shared_ptr<FakeCache> cache = std::make_shared<FakeCache>();
  std::unique_ptr<QS_StreamTTSThread> stream;
};

constexpr int kFramed = FakeEngine::kTextSamples;

TEST_F(Streaming, SynthesisesEachTextOnceAndOffersItToTheDynamicCache) {
  make({"P", "", "Z"});
  EXPECT_EQ(finish(), std::vector<int>{0});
  EXPECT_EQ(engine.texts, (std::vector<std::string>{"P", "Z"}));
  EXPECT_EQ(cache->added, engine.texts);
  EXPECT_EQ(test::countLog("Streamthread input empty skipping this entry"), 1);
  // The first text is heard from its first sample; of a later one the first chunk is left out.
  EXPECT_EQ(controller.media.samples().size(),
            static_cast<std::size_t>(2 * kFramed - FakeEngine::kChunkSamples + 80));
}

TEST_F(Streaming, OffersATextToTheBuilderInWhichItMissedIt) {
  engine.onChunk = [&](const std::string&, int) { controller.cache = nullptr; };
  make({"P"});
  EXPECT_EQ(finish(), std::vector<int>{0});
  EXPECT_EQ(cache->added, std::vector<std::string>{"P"});
}

TEST_F(Streaming, TakesTextsFromTheStaticThenTheDynamicCache) {
  controller.cacheEnabled = true;
  {
    const platform::MutexLock hold(qs_ns::cacheMutex);
    const auto samples = std::make_shared<std::int16_t[]>(3200, 'b');
    (void)qs_ns::static_cache::store("Answer", {samples, 3200});
  }
  cache->put("Answer", 3200, 'x');
  cache->put("recent", 3200, 'm');
  make({"Answer", "recent"});
  EXPECT_EQ(finish(), std::vector<int>{0});
  EXPECT_TRUE(engine.texts.empty());
  EXPECT_GT(heard(controller, 'b'), 3000);
  EXPECT_GT(heard(controller, 'm'), 3000);
  EXPECT_EQ(cache->refreshed, std::vector<std::string>{"recent"});
}

TEST_F(Streaming, SynthesisesWhereACacheIsOffOrAnEntryHasGone) {
  {
    const platform::MutexLock hold(qs_ns::cacheMutex);
    const auto samples = std::make_shared<std::int16_t[]>(3200, 'b');
    (void)qs_ns::static_cache::store("Answer", {samples, 3200});
  }
  cache->entries["gone"] = {};
  make({"Answer", "gone"});
  EXPECT_EQ(finish(), std::vector<int>{0});
  EXPECT_EQ(engine.texts, (std::vector<std::string>{"Answer", "gone"}));
}

TEST_F(Streaming, PassesSpeedAndVoiceOn) {
  stream = std::make_unique<QS_StreamTTSThread>(
      &controller, std::make_unique<qs_ns::QS_PlayRequest>(std::vector<std::string>{"P"}, nullptr,
                                                           0x7FFFFFFD, 0, 0));
  EXPECT_EQ(finish(), std::vector<int>{0});
  EXPECT_EQ(engine.lastUserData.speed, 5);
  EXPECT_EQ(engine.lastUserData.voice, 1);
}

TEST_F(Streaming, SilenceIsFedFromTheEndOfATextToTheFirstBlockOfTheNext) {
  test::Gate lastButOneFrame;
  controller.media.onFrame = [&](int frame) {
    if (frame == kFramed / qs_ns::kFrameSamples - 1) lastButOneFrame.pass();
  };
  int waits = 0;
  engine.onChunk = [&](const std::string& text, int chunk) {
    if (text != "Z") return;
    if (chunk == 0) {
      lastButOneFrame.open();
      // Nothing but silence can come now.
      controller.media.frameCount.await(kFramed / qs_ns::kFrameSamples + 5);
      waits = test::waitsBegun().value();
    } else if (chunk == 3) {
      // Within the text the writer waits for sound and feeds nothing.
      test::waitsBegun().await(waits + 1);
    }
  };
  make({"P", "Z"}, qs_ns::kSilenceBetweenTexts);
  EXPECT_EQ(finish(), std::vector<int>{0});
  EXPECT_GE(heard(controller, 'Z'), kFramed - 100) << "from its first sample on";
  EXPECT_EQ(test::countLog("Marking WriteTTSThread to send silence", LOG_DEBUG), 2);
}

TEST_F(Streaming, AStopDuringASynthesisAbandonsItAndReportsOne) {
  engine.onChunk = [&](const std::string&, int chunk) {
    if (chunk == 2) stream->stopThread();
  };
  make({"P", "Z"});
  EXPECT_EQ(finish(), std::vector<int>{1});
  EXPECT_EQ(engine.texts, std::vector<std::string>{"P"});
  EXPECT_TRUE(cache->added.empty()) << "half a text must not be kept";
  EXPECT_EQ(test::countLog("Stopping flite stream process"), 1);
}

TEST_F(Streaming, AStopBeforeItBeginsWritesNothing) {
  make({"P"});
  stream->stopThread();
  stream->stopThread();
  EXPECT_EQ(finish(), std::vector<int>{1});
  EXPECT_TRUE(engine.texts.empty());
  EXPECT_EQ(test::countLog("WriteTTSThread started"), 0);
  EXPECT_EQ(test::countLog("Received new command, stop the current thread"), 2)
      << "one of the stop, one of the start that saw it";
}

TEST_F(Streaming, AStopWhileTheWriterIsBeingCreatedReportsOneResultAndSoundsNothing) {
  const test::ScratchFolder folder;
  const std::string alert = folder / "alert.raw";
  test::writeFile(alert, std::string(3200, 'x'));
  controller.onSetState = [&] { stream->stopThread(); };
  make({"P"}, qs_ns::kPlayAlertAfterTexts, alert.c_str());
  EXPECT_EQ(finish(), std::vector<int>{1});
  EXPECT_TRUE(controller.media.frames().empty());
}

TEST_F(Streaming, AStopSilencesWhatIsQueuedAlready) {
  controller.media.onFrame = [&](int frame) {
    if (frame == 2) stream->stopThread();
  };
  make({"P", "Z"});
  EXPECT_EQ(finish(), std::vector<int>{1});
  EXPECT_LE(controller.media.frames().size(), 3U);
}

TEST_F(Streaming, AStopWithTheLastFrameReportsOneResult) {
  const int lastFrame = kFramed / qs_ns::kFrameSamples;
  controller.media.onFrame = [&](int frame) {
    if (frame == lastFrame) stream->stopThread();
  };
  make({"P"});
  EXPECT_EQ(finish(), std::vector<int>{1});
}

TEST_F(Streaming, AWriterThatCannotBeStartedCountsAsStopped) {
  test::failThread(1);
  make({"P"});
  EXPECT_EQ(finish(), std::vector<int>{1});
  EXPECT_TRUE(engine.texts.empty());
}

TEST_F(Streaming, AStopAfterTheResultWasDecidedChangesNothing) {
  test::Gate decided;
  controller.onReport = [&](int) { decided.pass(); };
  make({"P"});
  test::Background run([&] { stream->executeStream(); });
  decided.awaitArrival();
  // It waits for the decision to be posted, so that a reply to the stop cannot overtake the signal.
  test::Background stop([&] {
    stream->stopThread();
    EXPECT_FALSE(stream->isStopped());
    EXPECT_EQ(controller.reported.value(), 1);
  });
  EXPECT_FALSE(stop.endsWithoutSleep());
  decided.open();
  stop.get();
  run.get();
  EXPECT_EQ(destroy(), std::vector<int>{0});
}

/// A request of several texts of ten seconds each, whose writer stays in its first frame.
class LongStreaming : public Streaming {
 protected:
  static constexpr int kTenSeconds = 10 * qs_ns::kSpeechRate;

  void SetUp() override {
    Streaming::SetUp();
    cache->put("long", kTenSeconds, 'm');
    controller.media.onFrame = [&](int frame) {
      if (frame == 1) firstFrame.pass();
    };
  }
  /// Starts it, and returns when it waits for room.
  void startAndAwaitWait(std::vector<std::string> texts) {
    make(std::move(texts));
    run.emplace([&] { stream->executeStream(); });
    firstFrame.awaitArrival();
    ASSERT_TRUE(test::waitForLog(kBegun, 4));
    EXPECT_FALSE(run->endsWithoutSleep());
  }

  static constexpr char kBegun[] = "Dynamic text match found";
  test::Gate firstFrame;
  std::optional<test::Background<std::function<void()>>> run;
};

TEST_F(LongStreaming, NoTextBeginsWhileTwentySecondsWait) {
  startAndAwaitWait({"long", "long", "long", "long", "long", "P"});
  // One is with the writer, and with three waiting the next one has to wait too.
  EXPECT_EQ(test::countLog(kBegun), 4);
  engine.onChunk = [&](const std::string&, int) {
    EXPECT_GE(controller.media.frameCount.value(), 2 * kTenSeconds / qs_ns::kFrameSamples)
        << "two of five are played before no more than two wait";
  };
  firstFrame.open();
  run->get();
  EXPECT_EQ(destroy(), std::vector<int>{0});
  EXPECT_EQ(engine.texts, std::vector<std::string>{"P"});
}

TEST_F(LongStreaming, AStopEndsTheWaitForRoom) {
  startAndAwaitWait({"long", "long", "long", "long", "P"});
  stream->stopThread();
  ASSERT_TRUE(test::waitForLog("Call qs_writeTTSThread->join()"));
  firstFrame.open();
  run->get();
  EXPECT_EQ(destroy(), std::vector<int>{1});
  EXPECT_TRUE(engine.texts.empty());
}

}  // namespace
