#include "playback/stream_tts_thread.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "cache/builder_line.h"
#include "cache/cache_thread.h"
#include "cache/dynamic_phrase_cache.h"
#include "fake_speech.h"
#include "support/background.h"
#include "support/fakes.h"
#include "support/link_seams.h"
#include "support/scratch_folder.h"
#include "support/syslog_capture.h"

namespace {

using qs_ns::QS_StreamTTSThread;
using test::FakeSpeech;
using test::Stage;
using Texts = std::vector<std::string>;

class Streaming : public testing::Test {
 protected:
  void SetUp() override {
    test::clearLog();
    controller.media.volume = 1024;
    qs_ns::dynamic_cache::clear();
    controller.cache = std::make_shared<qs_ns::QS_CacheThread>(&controller, true, line);
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

  static void cache(const std::string& text, int count, short value) {
    EXPECT_TRUE(qs_ns::dynamic_cache::add(text, test::makeWave(count, value), false));
  }
  /// What the dynamic cache holds, the least recently used first.
  static Texts cached() {
    const platform::MutexLock hold(qs_ns::dynamicCacheMutex);
    Texts all;
    for (const auto& record : qs_ns::dequeDynamicPhraseCache)
      all.push_back(record.text);
    return all;
  }

  FakeSpeech speech;
  qs_ns::BuilderLine line;
  test::FakeController controller;
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
  EXPECT_EQ(cached(), (Texts{"P", "Z"}));
}

TEST_F(Streaming, TakesTextsFromTheStaticThenTheDynamicCacheElseFromTheEngine) {
  {
    const platform::MutexLock hold(qs_ns::cacheMutex);
    const auto samples = std::make_shared<std::int16_t[]>(3200, 'b');
    (void)qs_ns::static_cache::store("Answer", {samples, 3200});
  }
  cache("recent", 3200, 'm');
  cache("Answer", 3200, 'x');
  controller.cacheEnabled = true;
  make({"Answer", "recent", "new"});
  EXPECT_EQ(finish(), std::vector<int>{0});
  EXPECT_EQ(speech.texts, Texts{"new"});
  EXPECT_GT(heard('b'), 3000);
  EXPECT_GT(heard('m'), 3000);
  EXPECT_EQ(cached(), (Texts{"Answer", "recent", "new"}));
  controller.cacheEnabled = false;
  make({"Answer"});
  finish();
  EXPECT_EQ(cached(), (Texts{"recent", "new", "Answer"}));
}

TEST_F(Streaming, SynthesisesATextThatAReloadTakesOutOfTheCacheAsItIsFound) {
  cache("gone", 3200, 'm');
  // Between the look for it and the copy.
  test::beforeNextLock(&qs_ns::dynamicCacheMutex, [] {
    test::beforeNextLock(&qs_ns::dynamicCacheMutex, [] { qs_ns::dynamic_cache::clear(); });
  });
  make({"gone"});
  EXPECT_EQ(finish(), std::vector<int>{0});
  EXPECT_EQ(speech.texts, Texts{"gone"});
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
  EXPECT_TRUE(cached().empty()) << "half a text must not be kept";
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

// The writer stays in its first frame while ever more is ready.
TEST_F(Streaming, NothingBeginsWhileMoreThanTwentySecondsWaitUnlessItIsStopped) {
  const std::vector<std::int16_t> sound(20 * qs_ns::kSpeechRate);
  for (const bool stops : {false, true}) {
    SCOPED_TRACE(stops);
    test::clearLog();
    speech.texts.clear();
    qs_ns::dynamic_cache::clear();
    test::Gate firstFrame;
    const int before = controller.media.frameCount.value();
    controller.media.onFrame = [&](int frame) {
      if (frame == before + 1) firstFrame.pass();
    };
    const auto nextWaitsAfter = [&](std::size_t samples) {
      stream->writeToMS(0, static_cast<int>(samples), sound.data(), 0);
      return speech.lastUserData.waitsBeforePiece(speech.lastUserData);
    };
    speech.at = [&](int synthesis, Stage stage) {
      if (stage != Stage::start) return;
      if (synthesis == 1) {
        EXPECT_GE(controller.media.frameCount.value() - before,
                  std::ssize(sound) / qs_ns::kFrameSamples);
        return;
      }
      nextWaitsAfter(sound.size());
      firstFrame.awaitArrival();
      EXPECT_FALSE(nextWaitsAfter(sound.size())) << "the writer has what came first";
      EXPECT_TRUE(nextWaitsAfter(1));
    };
    make({"P", "Z"});
    test::Background run([&] { stream->executeStream(); });
    firstFrame.awaitArrival();
    EXPECT_FALSE(run.endsWithoutSleep());
    if (stops) {
      stream->stopThread();
      EXPECT_TRUE(test::waitForLog("Call qs_writeTTSThread->join()"));
    }
    firstFrame.open();
    run.get();
    EXPECT_EQ(destroy().back(), stops ? 1 : 0);
    EXPECT_EQ(speech.texts, stops ? Texts{"P"} : (Texts{"P", "Z"}));
  }
}

}  // namespace
