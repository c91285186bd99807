#include "playback/stream_tts_thread.h"

#include <algorithm>
#include <functional>
#include <map>
#include <optional>

#include <gtest/gtest.h>

#include "fake_speech.h"
#include "support/background.h"
#include "support/fakes.h"
#include "support/link_seams.h"
#include "support/scratch_folder.h"
#include "support/syslog_capture.h"

namespace {

using qs_ns::DynamicPhraseCache;
using qs_ns::QS_StreamTTSThread;
using qs_ns::Wave;
using test::FakeSpeech;
using test::Stage;
using Texts = std::vector<std::string>;

/// The dynamic cache as a map; says how it was used.
class FakeCache final : public qs_ns::QS_CacheThreadBase {
 public:
  std::map<std::string, DynamicPhraseCache> entries;
  Texts added, refreshed;

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
    EXPECT_EQ(wave->num_samples, FakeSpeech::kSamples);
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

class Streaming : public testing::Test {
 protected:
  void SetUp() override {
    test::clearLog();
    controller.media.volume = 1024;
    controller.cache = cache;
    const platform::MutexLock hold(qs_ns::cacheMutex);
    (void)qs_ns::static_cache::clear();
  }

  /// A request for speed 5 and voice 1.
  void make(Texts texts, std::int32_t flags = 0, const char* alert = nullptr) {
    stream = std::make_unique<QS_StreamTTSThread>(
        &controller,
        std::make_unique<qs_ns::QS_PlayRequest>(std::move(texts), alert, 0x7FFFFFFD, 0, flags));
  }
  /// Plays to the end and destroys the stream; the results that were reported.
  std::vector<int> finish() {
    stream->executeStream();
    return destroy();
  }
  std::vector<int> destroy() {
    stream.reset();
    std::vector<int> results;
    for (const auto& [handle, result] : controller.reports)
      results.push_back(result);
    return results;
  }

  /// How many of the samples that were heard came from a text or entry of that value.
  int heard(char value) const {
    const auto samples = controller.media.samples();
    // Once settled, the gain is 1024 - 10 at least, so a value comes out within 1 %.
    return static_cast<int>(std::count_if(samples.begin(), samples.end(), [value](int sample) {
      return sample >= value - 2 && sample <= value;
    }));
  }

  FakeSpeech speech;
  test::FakeController controller;
  std::shared_ptr<FakeCache> cache = std::make_shared<FakeCache>();
  std::unique_ptr<QS_StreamTTSThread> stream;
};

TEST_F(Streaming, SynthesisesEachTextAsAskedForTheBuilderInWhichItMissedIt) {
  speech.at = [&](int synthesis, Stage stage) {
    if (synthesis == 1 && stage == Stage::middle) controller.cache = nullptr;
  };
  make({"P", "", "Z", "A"});
  EXPECT_EQ(finish(), std::vector<int>{0});
  EXPECT_EQ(speech.texts, (Texts{"P", "Z", "A"}));
  EXPECT_EQ(speech.lastUserData.speed, 5);
  EXPECT_EQ(speech.lastUserData.voice, 1);
  EXPECT_EQ(cache->added, (Texts{"P", "Z"}));
}

TEST_F(Streaming, TakesTextsFromTheStaticThenTheDynamicCacheElseFromTheEngine) {
  {
    const platform::MutexLock hold(qs_ns::cacheMutex);
    const auto samples = std::make_shared<std::int16_t[]>(3200, 'b');
    (void)qs_ns::static_cache::store("Answer", {samples, 3200});
  }
  cache->put("Answer", 3200, 'x');
  cache->put("recent", 3200, 'm');
  cache->entries["gone"] = {};
  controller.cacheEnabled = true;
  make({"Answer", "recent", "gone"});
  EXPECT_EQ(finish(), std::vector<int>{0});
  EXPECT_EQ(speech.texts, Texts{"gone"});
  EXPECT_GT(heard('b'), 3000);
  EXPECT_GT(heard('m'), 3000);
  EXPECT_EQ(cache->refreshed, Texts{"recent"});
  controller.cacheEnabled = false;
  make({"Answer"});
  finish();
  EXPECT_EQ(cache->refreshed, (Texts{"recent", "Answer"}));
}

TEST_F(Streaming, SilenceIsFedFromTheEndOfATextToTheFirstBlockOfTheNext) {
  constexpr int kFrames = FakeSpeech::kSamples / qs_ns::kFrameSamples;
  test::Gate lastButOneFrame;
  controller.media.onFrame = [&](int frame) {
    if (frame == kFrames - 1) lastButOneFrame.pass();
  };
  int waits = 0;
  speech.at = [&](int synthesis, Stage stage) {
    if (synthesis != 1) return;
    if (stage == Stage::first) {
      lastButOneFrame.open();
      // Nothing but silence can come now.
      controller.media.frameCount.await(kFrames + 5);
      waits = test::waitsBegun().value();
    } else if (stage == Stage::last) {
      // Within the text the writer waits for sound and feeds nothing.
      test::waitsBegun().await(waits + 1);
    }
  };
  make({"P", "Z"}, qs_ns::kSilenceBetweenTexts);
  EXPECT_EQ(finish(), std::vector<int>{0});
  EXPECT_GE(heard('Z'), FakeSpeech::kSamples - 100) << "from its first sample on";
}

TEST_F(Streaming, AStopDuringASynthesisAbandonsItAndReportsOne) {
  speech.at = [&](int, Stage stage) {
    EXPECT_NE(stage, Stage::last) << "it went on";
    if (stage == Stage::middle) stream->stopThread();
  };
  make({"P", "Z"});
  EXPECT_EQ(finish(), std::vector<int>{1});
  EXPECT_EQ(speech.texts, Texts{"P"});
  EXPECT_TRUE(cache->added.empty()) << "half a text must not be kept";
}

// Were it to wait on, the test would run out of time.
TEST_F(Streaming, AStopEndsTheWaitForTheVoice) {
  qs_ns::voiceMutex.lock();
  test::Tally asked;
  speech.at = [&](int, Stage) { asked.add(); };
  make({"P", "Z"});
  test::Background run([&] { stream->executeStream(); });
  asked.await(1);
  EXPECT_FALSE(run.endsWithoutSleep());
  stream->stopThread();
  run.get();
  qs_ns::voiceMutex.unlock();
  EXPECT_EQ(destroy(), std::vector<int>{1});
  EXPECT_EQ(speech.texts, Texts{"P"});
}

TEST_F(Streaming, AStopWhileTheWriterIsBeingCreatedReportsOneResultAndSoundsNothing) {
  const test::ScratchFolder folder;
  const std::string alert = folder / "alert.raw";
  test::writeFile(alert, std::string(3200, 'x'));
  controller.onSetState = [&] { stream->stopThread(); };
  make({"P"}, qs_ns::kPlayAlertAfterTexts, alert.c_str());
  EXPECT_EQ(finish(), std::vector<int>{1});
  EXPECT_TRUE(controller.media.frames.empty());
}

TEST_F(Streaming, AStopLetsOneFadingFrameOutOfWhatIsQueuedAlready) {
  controller.media.onFrame = [&](int frame) {
    if (frame == 2) stream->stopThread();
  };
  make({"P", "Z"});
  EXPECT_EQ(finish(), std::vector<int>{1});
  const auto frames = controller.media.frames;
  ASSERT_EQ(frames.size(), 3U);
  EXPECT_EQ(frames[2].front(), frames[1].back());
  EXPECT_EQ(frames[2].back(), 0);
  EXPECT_EQ(controller.media.drops.value(), 1) << "what waits in the device must go too";
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
    EXPECT_EQ(controller.reports.size(), 1U);
  });
  EXPECT_FALSE(stop.endsWithoutSleep());
  decided.open();
  stop.get();
  run.get();
  EXPECT_EQ(destroy(), std::vector<int>{0});
  EXPECT_EQ(controller.media.drops.value(), 0) << "the end of it is still to be heard";
}

// The writer stays in its first frame while texts of ten seconds each come from the cache.
TEST_F(Streaming, NoTextBeginsWhileTwentySecondsWaitUnlessItIsStopped) {
  constexpr int kTenSeconds = 10 * qs_ns::kSpeechRate;
  constexpr char kBegun[] = "Dynamic text match found";
  cache->put("long", kTenSeconds, 'm');
  for (const bool stops : {false, true}) {
    SCOPED_TRACE(stops);
    test::clearLog();
    test::Gate firstFrame;
    const int before = controller.media.frameCount.value();
    controller.media.onFrame = [&](int frame) {
      if (frame == before + 1) firstFrame.pass();
    };
    speech.at = [&](int, Stage) {
      EXPECT_GE(controller.media.frameCount.value(), 2 * kTenSeconds / qs_ns::kFrameSamples)
          << "two of five are played before no more than two wait";
    };
    make({"long", "long", "long", "long", "long", "P"});
    test::Background run([&] { stream->executeStream(); });
    firstFrame.awaitArrival();
    // One is with the writer, and with three waiting the next one has to wait too.
    EXPECT_TRUE(test::waitForLog(kBegun, 4));
    EXPECT_FALSE(run.endsWithoutSleep());
    EXPECT_EQ(test::countLog(kBegun), 4);
    if (stops) {
      stream->stopThread();
      EXPECT_TRUE(test::waitForLog("Call qs_writeTTSThread->join()"));
    }
    firstFrame.open();
    run.get();
    EXPECT_EQ(destroy().back(), stops ? 1 : 0);
    EXPECT_EQ(speech.texts, Texts{"P"}) << "of the one that was not stopped";
  }
}

TEST_F(Streaming, SaysThatTheNextPieceWaitsOnceTwentySecondsDo) {
  test::Gate firstFrame;
  controller.media.onFrame = [&](int frame) {
    if (frame == 1) firstFrame.pass();
  };
  speech.at = [&](int, Stage stage) {
    if (stage != Stage::start) return;
    const auto waits = [&] { return speech.lastUserData.waitsBeforePiece(speech.lastUserData); };
    const std::vector<std::int16_t> sound(20 * qs_ns::kSpeechRate + 1);
    stream->writeToMS(0, static_cast<int>(sound.size()), sound.data(), 0);
    firstFrame.awaitArrival();
    EXPECT_FALSE(waits()) << "the writer has it";
    stream->writeToMS(0, static_cast<int>(sound.size()), sound.data(), 0);
    EXPECT_TRUE(waits());
    stream->stopThread();
    firstFrame.open();
  };
  make({"P"});
  EXPECT_EQ(finish(), std::vector<int>{1});
}

}  // namespace
