#include "tts/speech_engine.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <optional>

#include <gtest/gtest.h>

#include "engine_fakes.h"
#include "tts/text_guard.h"
#include "tts/utterance_pieces.h"

namespace {

using namespace qs_ns;
using test::fliteAlone;
using test::Samples;
using test::samplesOf;

const std::string kShort = "Incoming call from Ada.";

std::string heavyText(const std::string& floor) {
  return "The line was busy, so the call went to the mailbox of the " + floor +
         " floor. One new message was left there at nine o'clock this morning! It says that the "
         "meeting has been moved to the large room on the ground floor, where there is coffee.";
}

const std::string kHeavy = heavyText("second");
// The last chunk that Flite makes of its first piece has no samples.
const std::string kHeavyWithEmptyChunk = heavyText("fourth");

Samples inPieces(const std::string& text, float stretch = 0.75F) {
  Samples all;
  for (const auto piece : cutIntoPieces(text)) {
    const Samples part = fliteAlone(std::string(piece), stretch);
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

/// A caller of the engine that keeps what it was told and answers as a test wants.
struct Listener {
  QS_StreamUserData userData{this, 3, 0, beforePiece, abandoned};
  Samples heard;
  int calls = 0;
  int lasts = 0;
  int piecesAsked = 0;
  int voicesHeld = 0;
  int stopsAtCall = -1;
  int endsBeforePiece = -1;
  int abandonsPiece = -1;
  std::function<void()> betweenPieces = [] {};

  Wave listenTo(const std::string& text, bool wantWave = true) {
    return qs_flite_tts_stream(text.c_str(), onChunk, &userData, wantWave);
  }

  static Listener& of(const QS_StreamUserData& data) { return *static_cast<Listener*>(data.owner); }
  static int beforePiece(QS_StreamUserData& data) {
    Listener& self = of(data);
    if (++self.piecesAsked == 2) self.betweenPieces();
    return self.piecesAsked == self.endsBeforePiece ? 1 : 0;
  }
  static bool abandoned(const QS_StreamUserData& data) {
    return ++of(data).voicesHeld == of(data).abandonsPiece;
  }
  static int onChunk(const cst_wave* wave, int start, int size, int last,
                     cst_audio_streaming_info* info) {
    Listener& self = of(*static_cast<QS_StreamUserData*>(info->userdata));
    EXPECT_EQ(self.lasts, 0) << "called again after the last call";
    EXPECT_EQ(static_cast<std::size_t>(start), self.heard.size());
    EXPECT_LE(start + size, wave->num_samples);
    EXPECT_TRUE(size > 0 || last != 0) << "called for nothing";
    EXPECT_EQ(wave->sample_rate, 16000);
    EXPECT_EQ(info->min_buffsize, 320);
    EXPECT_TRUE(std::equal(self.heard.begin(), self.heard.end(), wave->samples));
    self.heard.insert(self.heard.end(), wave->samples + start, wave->samples + start + size);
    self.lasts += last != 0 ? 1 : 0;
    return ++self.calls == self.stopsAtCall ? CST_AUDIO_STREAM_STOP : CST_AUDIO_STREAM_CONT;
  }
};

class SpeechEngine : public testing::Test {
 protected:
  static void SetUpTestSuite() { qs_flite_init(); }
  void SetUp() override { test::properties() = {}; }

  static void expectEmpty(const Wave& wave) {
    ASSERT_NE(wave, nullptr);
    EXPECT_EQ(wave->num_samples, 0);
  }
  /// Nothing of an ended text is left behind in the voice.
  static void expectUnharmed() {
    EXPECT_EQ(feat_present(qs_fetch_voice(0)->features, "streaming_info"), 0);
    Listener next;
    EXPECT_EQ(samplesOf(next.listenTo(kShort).get()), fliteAlone(kShort));
  }
};

TEST_F(SpeechEngine, SpeaksATextOfOnePieceExactlyAsFliteDoes) {
  std::string heaviest = "Oh";
  while (heaviest.size() < kMaxPieceWeight)
    heaviest += " ah";
  ASSERT_EQ(textWeight(heaviest), kMaxPieceWeight);
  for (const std::string& text : {kShort, std::string(), heaviest}) {
    SCOPED_TRACE(text);
    const Samples expected = fliteAlone(text);
    Listener listener;
    EXPECT_EQ(samplesOf(listener.listenTo(text).get()), expected);
    EXPECT_EQ(listener.heard, expected);
    EXPECT_EQ(listener.lasts, 1);
    EXPECT_EQ(listener.piecesAsked, 1);
    EXPECT_EQ(listener.voicesHeld, 1);
  }
}

TEST_F(SpeechEngine, SpeaksATextThatOnlyTheGuardMadeHeavyInOnePiece) {
  const std::string text(kMaxPieceWeight, 'a');
  Listener listener;
  EXPECT_EQ(samplesOf(listener.listenTo(text).get()), fliteAlone(guardText(text)));
  EXPECT_EQ(listener.piecesAsked, 1);
}

TEST_F(SpeechEngine, SpeaksAHeavyTextAsOneStreamOfItsPieces) {
  for (const std::string& text : {kHeavy, kHeavyWithEmptyChunk}) {
    const int pieces = static_cast<int>(cutIntoPieces(text).size());
    ASSERT_GE(pieces, 2);
    const Samples expected = inPieces(text);
    Listener listener;
    EXPECT_EQ(samplesOf(listener.listenTo(text).get()), expected);
    EXPECT_EQ(listener.heard, expected);
    EXPECT_EQ(listener.lasts, 1);
    EXPECT_EQ(listener.piecesAsked, pieces);
    EXPECT_EQ(listener.voicesHeld, pieces);
  }
}

TEST_F(SpeechEngine, MakesTheWaveOrTheCallsOrBothAsItIsAsked) {
  for (const std::string& text : {kShort, kHeavy}) {
    const Samples expected = inPieces(text);
    Listener listener;
    EXPECT_EQ(listener.listenTo(text, false), nullptr);
    EXPECT_EQ(listener.heard, expected);
    EXPECT_EQ(samplesOf(qs_flite_tts_stream(text.c_str(), nullptr, nullptr, true).get()), expected);
  }
}

TEST_F(SpeechEngine, TakesItsStretchFromTheRequestElseFromTheProperty) {
  struct Row {
    int speed, voice;
    std::optional<int> property;
    float stretch;
  };
  const Row rows[] = {{1, 0, 5, 1.0F},   {2, 0, 5, 0.875F}, {3, 0, 5, 0.75F}, {4, 0, 1, 0.625F},
                      {5, 1, 1, 0.5F},   {6, 0, 1, 0.75F},  {7, 0, 1, 0.75F}, {-1, 0, 1, 0.75F},
                      {0, 0, 1, 1.0F},   {0, 0, 5, 0.5F},   {0, 0, 0, 0.75F}, {0, 0, 6, 0.75F},
                      {0, 0, -2, 0.75F}, {0, 0, {}, 0.75F}, {0, 1, 5, 0.875F}};
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "speed " << row.speed << " voice " << row.voice);
    if (row.property)
      test::properties().integers["device.accessibility.qs_speed"] = *row.property;
    else
      test::properties().integers.clear();
    Listener listener;
    listener.userData.speed = row.speed;
    listener.userData.voice = row.voice;
    EXPECT_EQ(samplesOf(listener.listenTo("Hi").get()), fliteAlone("Hi", row.stretch));
  }
  test::properties() = {{{"device.accessibility.qs_speed", 4}}, {}, 0};
  EXPECT_EQ(qs_fetch_speed(nullptr), 4);
  const QS_StreamUserData fast{nullptr, 0, 1};
  EXPECT_EQ(qs_fetch_speed(&fast), 2);
  EXPECT_EQ(test::properties().reads, 1) << "the fast voice's level needs no property";
}

TEST_F(SpeechEngine, EndsWithAnEmptyWaveWhereTheCallbackStopsIt) {
  Listener whole;
  int firstPieceCalls = 0;
  whole.betweenPieces = [&] { firstPieceCalls = whole.calls; };
  whole.listenTo(kHeavy);
  struct Row {
    const std::string& text;
    int stopsAtCall, piecesAsked;
  };
  const Row rows[] = {{kShort, 1, 1},
                      {kShort, 3, 1},
                      {kHeavy, 3, 1},
                      {kHeavy, firstPieceCalls, 1},
                      {kHeavy, firstPieceCalls + 1, 2},
                      {kHeavy, whole.calls - 1, whole.piecesAsked}};
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.text << row.stopsAtCall);
    Listener listener;
    listener.stopsAtCall = row.stopsAtCall;
    expectEmpty(listener.listenTo(row.text));
    EXPECT_EQ(listener.calls, row.stopsAtCall);
    EXPECT_EQ(listener.piecesAsked, row.piecesAsked);
    EXPECT_EQ(listener.lasts, 0);
  }
  expectUnharmed();
}

TEST_F(SpeechEngine, HandsOutTheWholeWaveWhereTheStopComesWithTheLastSamples) {
  for (const std::string& text : {kShort, kHeavy}) {
    Listener whole;
    whole.listenTo(text);
    Listener stopped;
    stopped.stopsAtCall = whole.calls;
    EXPECT_EQ(samplesOf(stopped.listenTo(text).get()), whole.heard);
  }
}

TEST_F(SpeechEngine, EndsWithAnEmptyWaveWhereAHookSaysSo) {
  for (const std::string& text : {kShort, kHeavy}) {
    for (int piece = 1; piece <= static_cast<int>(cutIntoPieces(text).size()); ++piece) {
      SCOPED_TRACE(testing::Message() << "piece " << piece << " of " << text);
      Listener ended;
      ended.endsBeforePiece = piece;
      expectEmpty(ended.listenTo(text));
      EXPECT_EQ(ended.voicesHeld, piece - 1) << "the voice was taken all the same";
      Listener abandoned;
      abandoned.abandonsPiece = piece;
      test::noise().drawn = 0;
      expectEmpty(abandoned.listenTo(text));
      EXPECT_EQ(abandoned.heard.empty(), piece == 1);
      EXPECT_EQ(test::noise().drawn == 0, piece == 1) << "Flite was called all the same";
      EXPECT_EQ(abandoned.lasts, 0);
    }
  }
  expectUnharmed();
}

TEST_F(SpeechEngine, LeavesTheVoiceToOthersBetweenPieces) {
  Listener slow;
  slow.userData.speed = 1;
  Samples between;
  slow.betweenPieces = [&] {
    auto other = std::async(std::launch::async, [] {
      Listener fast;
      fast.userData.speed = 5;
      return samplesOf(fast.listenTo(kShort).get());
    });
    if (other.wait_for(std::chrono::seconds(30)) != std::future_status::ready)
      FAIL() << "the voice is held between pieces";
    between = other.get();
  };
  EXPECT_EQ(samplesOf(slow.listenTo(kHeavy).get()), inPieces(kHeavy, 1.0F));
  EXPECT_EQ(between, fliteAlone(kShort, 0.5F));
}

TEST_F(SpeechEngine, SpeaksOneTextAtATime) {
  const Samples expected[] = {inPieces(kHeavy, 1.0F), inPieces(kHeavy, 0.5F)};
  const auto speak = [](int speed) {
    return std::async(std::launch::async, [speed] {
      Listener listener;
      listener.userData.speed = speed;
      return samplesOf(listener.listenTo(kHeavy).get());
    });
  };
  auto slow = speak(1);
  auto fast = speak(5);
  EXPECT_EQ(slow.get(), expected[0]);
  EXPECT_EQ(fast.get(), expected[1]);
}

}  // namespace
