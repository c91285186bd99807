#include "tts/speech_engine.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <utility>

#include <gtest/gtest.h>

#include "support/background.h"
#include "support/flite_alone.h"
#include "support/scratch_folder.h"
#include "tts/text_guard.h"
#include "tts/utterance_pieces.h"

namespace {

using namespace qs_ns;
using test::fliteAlone;
using test::samplesOf;

const std::string kShort = "Incoming call from Ada.";

const std::string kFirst = "The line was busy, so the call went to the mailbox.";
const std::string kSecond = "One new message was left there at nine o'clock.";
const std::string kThird = "Half of it is gone.";
const std::string kTwo = kFirst + " " + kSecond;
// The last chunk that Flite makes of it has no samples.
const std::string kWithEmptyChunk =
    "The line was busy, so the call went to the mailbox of the fifth floor.";

/// A caller of the engine that keeps what it was told and answers as a test wants.
struct Listener {
  QS_StreamUserData userData{this, 3, 0, beforePiece, abandoned, false, waits};
  std::vector<short> heard;
  int calls = 0;
  int lasts = 0;
  int piecesAsked = 0;
  int voicesHeld = 0;
  int stopsAtCall = -1;
  int endsBeforePiece = -1;
  int abandonsPiece = -1;
  bool hasTime = false;
  std::function<void()> betweenPieces = [] {};
  std::function<void()> onSecondPiece = [] {};  // at its first chunk

  Wave listenTo(const std::string& text) {
    return qs_flite_tts_stream(text.c_str(), onChunk, &userData, true);
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
  static bool waits(const QS_StreamUserData& data) { return of(data).hasTime; }
  static int onChunk(const cst_wave* wave, int start, int size, int last,
                     cst_audio_streaming_info* info) {
    Listener& self = of(*static_cast<QS_StreamUserData*>(info->userdata));
    EXPECT_EQ(self.lasts, 0) << "called again after the last call";
    EXPECT_EQ(static_cast<std::size_t>(start), self.heard.size());
    EXPECT_LE(start + size, wave->num_samples);
    EXPECT_TRUE(size > 0 || last != 0) << "called for nothing";
    EXPECT_EQ(wave->sample_rate, 16000);
    EXPECT_TRUE(std::equal(self.heard.begin(), self.heard.end(), wave->samples));
    self.heard.insert(self.heard.end(), wave->samples + start, wave->samples + start + size);
    self.lasts += last != 0 ? 1 : 0;
    if (self.piecesAsked == 2) std::exchange(self.onSecondPiece, [] {})();
    return ++self.calls == self.stopsAtCall ? CST_AUDIO_STREAM_STOP : CST_AUDIO_STREAM_CONT;
  }
};

class SpeechEngine : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    hold("");
    // A suite before this one may have called it.
    if (qs_fetch_voice(0) == nullptr) {
      EXPECT_EQ(Listener().listenTo(kShort), nullptr);
    }
    qs_flite_init();
  }

  static void hold(const std::string& property) {
    static const test::ScratchFolder folder;
    setenv("QUILLSPEAK_PROPERTIES", (folder / "store").c_str(), 1);
    test::writeFile(folder / "store", property + "\n");
  }
};

TEST_F(SpeechEngine, HasOneVoiceWhateverIsAskedFor) {
  hold("qs_voice = kal16");
  EXPECT_NE(qs_fetch_voice(0), nullptr);
  EXPECT_EQ(qs_fetch_voice(1), qs_fetch_voice(0));
}

TEST_F(SpeechEngine, SpeaksATextAsOneStreamOfItsPieces) {
  std::string heaviest = "Oh";
  while (heaviest.size() < kMaxPieceWeight)
    heaviest += " ah";
  ASSERT_EQ(textWeight(heaviest), kMaxPieceWeight);
  // Only the guard makes it heavier than a piece.
  const std::string longToken(kMaxPieceWeight, 'a');
  const struct {
    std::string text;
    std::vector<std::string> pieces;
  } rows[] = {{kShort, {kShort}},
              {heaviest, {heaviest}},
              {longToken, {guardText(longToken)}},
              {kTwo + "  " + kThird, {kFirst, kSecond + "  " + kThird}},
              {kWithEmptyChunk + " " + kSecond, {kWithEmptyChunk, kSecond}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    std::vector<std::vector<short>> pieces;
    for (const std::string& piece : row.pieces)
      pieces.push_back(fliteAlone(piece));
    Listener listener;
    const Wave wave = listener.listenTo(row.text);
    test::expectJoined(listener.heard, pieces);
    EXPECT_EQ(samplesOf(wave.get()), listener.heard);
    EXPECT_EQ(listener.lasts, 1);
    EXPECT_EQ(listener.voicesHeld, static_cast<int>(row.pieces.size()));
  }
}

// A wait for the whole of the second piece would be one for its 100 chunks.
TEST_F(SpeechEngine, HandsOnALaterPieceAsSoonAsItSounds) {
  Listener listener;
  test::noise().drawn = 0;
  long drawnBefore = 0;
  listener.betweenPieces = [&] { drawnBefore = test::noise().drawn; };
  listener.onSecondPiece = [&] {
    EXPECT_LE(test::noise().drawn - drawnBefore, 200 * 16) << "samples, more than the near silence";
  };
  listener.listenTo(kTwo);
  EXPECT_EQ(listener.piecesAsked, 2);
}

TEST_F(SpeechEngine, TakesItsSpeedFromTheRequestElseFromTheProperty) {
  const struct {
    int speed, voice;
    const char* property;
    int level;
  } rows[] = {{1, 0, "5", 1}, {5, 1, "1", 5}, {6, 0, "1", 3}, {-1, 0, "1", 3},
              {0, 1, "5", 2}, {0, 0, "5", 5}, {0, 0, "6", 3}, {0, 0, "", 3}};
  for (const auto& row : rows) {
    hold(std::string("device.accessibility.qs_speed = ") + row.property);
    const QS_StreamUserData userData{nullptr, row.speed, row.voice};
    EXPECT_EQ(qs_fetch_speed(&userData), row.level) << &row - rows;
  }
}

TEST_F(SpeechEngine, EndsWithAnEmptyWaveWhereTheCallbackOrAHookSaysSo) {
  Listener whole;
  int firstPiece = 0;
  whole.betweenPieces = [&] { firstPiece = whole.calls; };
  whole.listenTo(kTwo);
  const struct {
    int stopsAtCall, endsBeforePiece, abandonsPiece;
    int voicesHeld, calls;
    std::size_t samples;
  } rows[] = {{3, -1, -1, 1, 3, 0},
              {firstPiece, -1, -1, 1, firstPiece, 0},
              {firstPiece + 1, -1, -1, 2, firstPiece + 1, 0},
              // Too late to stop anything.
              {whole.calls, -1, -1, 2, whole.calls, whole.heard.size()},
              {-1, 1, -1, 0, 0, 0},
              {-1, 2, -1, 1, firstPiece, 0},
              {-1, -1, 1, 1, 0, 0},
              {-1, -1, 2, 2, firstPiece, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    Listener listener;
    listener.stopsAtCall = row.stopsAtCall;
    listener.endsBeforePiece = row.endsBeforePiece;
    listener.abandonsPiece = row.abandonsPiece;
    test::noise().drawn = 0;
    const Wave wave = listener.listenTo(kTwo);
    ASSERT_NE(wave, nullptr);
    EXPECT_EQ(samplesOf(wave.get()).size(), row.samples);
    EXPECT_EQ(listener.calls, row.calls);
    EXPECT_EQ(listener.voicesHeld, row.voicesHeld);
    EXPECT_EQ(listener.lasts, row.samples == 0 ? 0 : 1);
    EXPECT_EQ(test::noise().drawn == 0, row.calls == 0) << "whether Flite was called";
  }
}

// Held between pieces, the voice would never come, and the test run out of time.
TEST_F(SpeechEngine, LeavesTheVoiceToOthersBetweenPieces) {
  Listener slow;
  slow.userData.speed = 1;
  Listener fast;
  fast.userData.speed = 5;
  slow.betweenPieces = [&] { test::Background([&] { fast.listenTo(kShort); }).get(); };
  slow.listenTo(kTwo);
  test::expectJoined(slow.heard, {fliteAlone(kFirst, 1.0F), fliteAlone(kSecond, 1.0F)});
  EXPECT_EQ(fast.heard, fliteAlone(kShort, 0.5F));
}

TEST_F(SpeechEngine, KeepsBackgroundWorkAwayUntilATextIsSpokenOrWaits) {
  const struct {
    bool background, hasTime, wanted;
  } rows[] = {{false, false, true}, {false, true, false}, {true, false, false}};
  for (const auto& row : rows) {
    Listener listener;
    listener.userData.background = row.background;
    listener.hasTime = row.hasTime;
    listener.betweenPieces = [&] { EXPECT_EQ(voiceMutex.isWantedBySpeech(), row.wanted); };
    listener.listenTo(kTwo);
    EXPECT_EQ(listener.piecesAsked, 2);
    EXPECT_FALSE(voiceMutex.isWantedBySpeech());
  }
}

}  // namespace
