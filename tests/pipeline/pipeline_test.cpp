#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cache/builder_line.h"
#include "cache/cache_thread.h"
#include "dsp/pfir.h"
#include "playback/message_queue_thread.h"
#include "support/fakes.h"
#include "support/flite_alone.h"
#include "support/pfir_literal.h"
#include "support/scratch_folder.h"
#include "tts/speech_engine.h"

namespace {

using test::fliteAlone;
using test::Samples;

constexpr int kFrame = 160;

/// What is to be heard of speech: whole frames with a rising gain, the rest faded out, each sample
/// become three. Written from the arithmetic, not from the code under test.
class Expected {
 public:
  explicit Expected(int volume = 512) : target(volume) {}

  void speak(const Samples& speech) {
    const std::int64_t volume = target;
    for (std::size_t i = 0; i < speech.size(); ++i) {
      if (i == speech.size() / kFrame * kFrame) target = 0;
      scaled.push_back(gained(gain, speech[i]));
      step();
    }
    while (scaled.size() % kFrame != 0) {
      scaled.push_back(0);
      step();
    }
    target = volume;
  }
  void alert(const Samples& sound, int volume) {
    for (const int sample : sound)
      scaled.push_back(gained(volume, sample));
    // The end of the file is seen one frame late where it ends with a frame.
    do
      scaled.push_back(0);
    while (scaled.size() % kFrame != 0);
  }
  Samples heard() const { return test::literalUp(pfir_getUpFilterConfig(3), scaled); }

 private:
  static std::int16_t gained(std::int64_t by, int sample) {
    return test::saturate<std::int16_t>((by * sample + 512) >> 10);
  }
  void step() { gain += ((target - gain) * 100) >> 10; }

  Samples scaled;
  std::int64_t gain = 0;
  std::int64_t target;
};

class Pipeline : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    setenv("QUILLSPEAK_PROPERTIES", "/nonexistent", 1);
    qs_ns::qs_flite_init();
  }
  void SetUp() override {
    controller.filter = &filter.state;
    queue.setController(&controller);
    queue.runThread();
  }
  void TearDown() override { queue.stopThread(); }

  /// Plays a request to its end; what was heard of it.
  Samples play(std::vector<std::string> texts, std::int32_t flags = 0,
               const char* alert = nullptr) {
    const std::size_t before = controller.media.samples().size();
    queue.addToQueue(test::makeRequest(std::move(texts), flags, alert));
    controller.restarts.await(++played);
    const Samples all = controller.media.samples();
    return {all.begin() + static_cast<std::ptrdiff_t>(before), all.end()};
  }

  test::FakeController controller;
  test::UpFilter filter{pfir_getUpFilterConfig(3)};
  qs_ns::QS_MessageQueueThread queue;
  int played = 0;
};

TEST_F(Pipeline, PlaysWhatFliteSynthesisesSampleForSampleAtAnyVolume) {
  for (const int volume : {512, 26207, -26207}) {
    controller.media.volume = volume;
    Expected expected(volume);
    expected.speak(fliteAlone("Incoming call from Ada Lovelace"));
    EXPECT_EQ(play({"Incoming call from Ada Lovelace"}), expected.heard()) << volume;
  }
}

TEST_F(Pipeline, JoinsTextsWithoutTheFirstChunkOfALaterOne) {
  Samples speech = fliteAlone("first");
  const Samples second = fliteAlone("second");
  speech.insert(speech.end(), second.begin() + 400, second.end());
  Expected expected;
  expected.speak(speech);
  EXPECT_EQ(play({"first", "second"}), expected.heard());
}

TEST_F(Pipeline, PlaysSentencesWithShortenedPausesAlsoFromTheCache) {
  const std::string first = "Half of it is off, as he said.";
  const std::string second = "Now thank both of them.";
  qs_ns::QS_StreamUserData userData;
  const Samples joined = test::samplesOf(
      qs_ns::qs_flite_tts_stream((first + " " + second).c_str(), nullptr, &userData, true).get());
  test::expectJoined(joined, {fliteAlone(first), fliteAlone(second)});
  Expected expected;
  expected.speak(joined);
  qs_ns::BuilderLine line;
  controller.cache = std::make_shared<qs_ns::QS_CacheThread>(&controller, true, line);
  EXPECT_EQ(play({first + " " + second}), expected.heard());
  test::noise().drawn = 0;
  EXPECT_EQ(play({first + " " + second}), expected.heard());
  EXPECT_EQ(test::noise().drawn, 0) << "synthesised again";
  controller.cache = nullptr;
}

TEST_F(Pipeline, TheAlertContinuesTheFiltersHistoryAtTheVolumeInForce) {
  const test::ScratchFolder folder;
  for (const std::size_t samples : {320U, 1000U}) {
    const Samples sound(samples, 9000);
    test::writeFile(folder / "alert.raw",
                    std::string(reinterpret_cast<const char*>(sound.data()), sound.size() * 2));
    controller.media.volume = 512;
    controller.media.onFrame = [&](int) { controller.media.volume = 300; };
    Expected expected;
    expected.speak(fliteAlone("Decline"));
    expected.alert(sound, 300);
    EXPECT_EQ(play({"Decline"}, qs_ns::kPlayAlertAfterTexts, (folder / "alert.raw").c_str()),
              expected.heard());
  }
}

TEST_F(Pipeline, AStoppedRequestLeavesNoTraceInTheNext) {
  auto request = test::makeRequest({"a text that is stopped in the middle of a loud vowel"});
  controller.media.onFrame = [this, handle = request->handle](int frame) {
    if (frame == 40) queue.stopPlaying(handle);
  };
  queue.addToQueue(std::move(request));
  controller.restarts.await(++played);
  EXPECT_EQ(controller.reports.back().second, 1);
  Expected expected;
  expected.speak(fliteAlone("Resume"));
  EXPECT_EQ(play({"Resume"}), expected.heard());
}

}  // namespace
