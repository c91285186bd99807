#include "tts/speech_engine.h"

#include <syslog.h>

#include <algorithm>
#include <cstdlib>
#include <functional>

#include <gtest/gtest.h>

#include "support/background.h"
#include "support/flite_alone.h"
#include "support/scratch_folder.h"
#include "support/syslog_capture.h"
#include "tts/text_guard.h"
#include "tts/utterance_pieces.h"

// The voice's library keeps the one that it registered here; without it the next one is new.
extern "C" cst_voice* cmu_us_slt_cg;  // NOLINT(readability-identifier-naming)

namespace {

using namespace qs_ns;
using test::fliteAlone;
using test::fliteInPieces;
using test::samplesOf;

const std::string kShort = "Incoming call from Ada.";

std::string heavyText(const std::string& floor) {
  return "The line was busy, so the call went to the mailbox of the " + floor +
         " floor. One new message was left there at nine o'clock this morning! It says that the "
         "meeting has been moved to the large room on the ground floor, where there is coffee.";
}

const std::string kHeavy = heavyText("second");  // two pieces
// The last chunk that Flite makes of its first piece has no samples.
const std::string kHeavyWithEmptyChunk = heavyText("fourth");

/// A caller of the engine that keeps what it was told and answers as a test wants.
struct Listener {
  QS_StreamUserData userData{this, 3, 0, beforePiece, abandoned};
  std::vector<short> heard;
  int calls = 0;
  int lasts = 0;
  int piecesAsked = 0;
  int voicesHeld = 0;
  int stopsAtCall = -1;
  int endsBeforePiece = -1;
  int abandonsPiece = -1;
  std::function<void()> betweenPieces = [] {};

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

/// A property store of the test's own.
struct Properties {
  Properties() { setenv("QUILLSPEAK_PROPERTIES", (folder / "store").c_str(), 1); }
  void hold(const std::string& line) const { test::writeFile(folder / "store", line); }

  test::ScratchFolder folder;
};

// Each of these cases is a process of its own when CTest runs it; in one with others, this one has
// to be the first.
TEST(Voice, IsNoneThenTheOnlyOneThenTheOneOfFiles) {
  if (cmu_us_slt_cg != nullptr) GTEST_SKIP() << "there is a voice already";
  Listener unheard;
  EXPECT_EQ(unheard.listenTo(kShort), nullptr);
  EXPECT_EQ(unheard.piecesAsked + unheard.calls, 0);
  EXPECT_EQ(qs_flite_tts_file(kShort, "", 0), 0);
  EXPECT_EQ(test::countLog("qs_flite_tts_stream: voice is NULL\n", LOG_DEBUG), 1);
  EXPECT_EQ(test::countLog("qs_flite_tts_file: voice is NULL\n", LOG_DEBUG), 1);

  const Properties properties;
  properties.hold("qs_voice = kal16\n");
  qs_flite_init();
  cst_voice* const slt = qs_fetch_voice(0);
  ASSERT_NE(slt, nullptr);
  EXPECT_EQ(qs_fetch_voice(1), slt);
  EXPECT_EQ(test::countLog("qs_fetch_voice: FAST VOICE KAL16 is disabled", LOG_ERR), 1);

  EXPECT_EQ(qs_flite_tts_file(kShort, "", 0), 0);
  cmu_us_slt_cg = nullptr;
  qs_flite_init();
  EXPECT_EQ(qs_fetch_voice(0), slt);
  EXPECT_NE(qs_fetch_voice(1), slt);
}

class SpeechEngine : public testing::Test {
 protected:
  static void SetUpTestSuite() { qs_flite_init(); }

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

  const Properties properties;
};

TEST_F(SpeechEngine, SpeaksATextAsOneStreamOfItsPieces) {
  std::string heaviest = "Oh";
  while (heaviest.size() < kMaxPieceWeight)
    heaviest += " ah";
  ASSERT_EQ(textWeight(heaviest), kMaxPieceWeight);
  // Only the guard makes it heavier than a piece.
  const std::string longToken(kMaxPieceWeight, 'a');
  const struct {
    std::string text;
    std::vector<short> expected;
    int pieces;
  } rows[] = {{kShort, fliteAlone(kShort), 1},
              {heaviest, fliteAlone(heaviest), 1},
              {longToken, fliteAlone(guardText(longToken)), 1},
              {kHeavy, fliteInPieces(kHeavy), 2},
              {kHeavyWithEmptyChunk, fliteInPieces(kHeavyWithEmptyChunk), 2}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    Listener listener;
    EXPECT_EQ(samplesOf(listener.listenTo(row.text).get()), row.expected);
    EXPECT_EQ(listener.heard, row.expected);
    EXPECT_EQ(listener.lasts, 1);
    EXPECT_EQ(listener.piecesAsked, row.pieces);
    EXPECT_EQ(listener.voicesHeld, row.pieces);
  }
}

TEST_F(SpeechEngine, TakesItsSpeedFromTheRequestElseFromTheProperty) {
  const struct {
    int speed, voice;
    const char* property;
    int level;
  } rows[] = {{1, 0, "5", 1}, {5, 1, "1", 5}, {6, 0, "1", 3}, {-1, 0, "1", 3},
              {0, 1, "5", 2}, {0, 0, "5", 5}, {0, 0, "6", 3}, {0, 0, "", 3}};
  for (const auto& row : rows) {
    properties.hold(std::string("device.accessibility.qs_speed = ") + row.property + "\n");
    const QS_StreamUserData userData{nullptr, row.speed, row.voice};
    EXPECT_EQ(qs_fetch_speed(&userData), row.level) << &row - rows;
  }
}

TEST_F(SpeechEngine, EndsWithAnEmptyWaveWhereTheCallbackStopsItBeforeTheEnd) {
  Listener whole;
  int firstPieceCalls = 0;
  whole.betweenPieces = [&] { firstPieceCalls = whole.calls; };
  whole.listenTo(kHeavy);
  const struct {
    const std::string& text;
    int stopsAtCall, piecesAsked;
    std::size_t samples;
  } rows[] = {{kShort, 3, 1, 0},
              {kHeavy, firstPieceCalls, 1, 0},
              {kHeavy, firstPieceCalls + 1, 2, 0},
              {kHeavy, whole.calls, 2, whole.heard.size()}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.text << row.stopsAtCall);
    Listener listener;
    listener.stopsAtCall = row.stopsAtCall;
    const Wave wave = listener.listenTo(row.text);
    ASSERT_NE(wave, nullptr);
    EXPECT_EQ(samplesOf(wave.get()).size(), row.samples);
    EXPECT_EQ(listener.calls, row.stopsAtCall);
    EXPECT_EQ(listener.piecesAsked, row.piecesAsked);
    EXPECT_EQ(listener.lasts, row.samples == 0 ? 0 : 1);
  }
  expectUnharmed();
}

TEST_F(SpeechEngine, EndsWithAnEmptyWaveWhereAHookSaysSo) {
  for (const int piece : {1, 2}) {
    SCOPED_TRACE(piece);
    Listener ended;
    ended.endsBeforePiece = piece;
    expectEmpty(ended.listenTo(kHeavy));
    EXPECT_EQ(ended.voicesHeld, piece - 1) << "the voice was taken all the same";
    Listener abandoned;
    abandoned.abandonsPiece = piece;
    test::noise().drawn = 0;
    expectEmpty(abandoned.listenTo(kHeavy));
    EXPECT_EQ(abandoned.heard.empty(), piece == 1);
    EXPECT_EQ(test::noise().drawn == 0, piece == 1) << "Flite was called all the same";
    EXPECT_EQ(abandoned.lasts, 0);
  }
  expectUnharmed();
}

std::vector<short> speakAt(int speed, const std::string& text) {
  Listener listener;
  listener.userData.speed = speed;
  return samplesOf(listener.listenTo(text).get());
}

// Held between pieces, the voice would never come, and the test run out of time.
TEST_F(SpeechEngine, LeavesTheVoiceToOthersBetweenPieces) {
  Listener slow;
  slow.userData.speed = 1;
  std::vector<short> between;
  slow.betweenPieces = [&] { between = test::Background([] { return speakAt(5, kShort); }).get(); };
  EXPECT_EQ(samplesOf(slow.listenTo(kHeavy).get()), fliteInPieces(kHeavy, 1.0F));
  EXPECT_EQ(between, fliteAlone(kShort, 0.5F));
}

TEST_F(SpeechEngine, SpeaksOneTextAtATime) {
  const auto expectedSlow = fliteInPieces(kHeavy, 1.0F);
  const auto expectedFast = fliteInPieces(kHeavy, 0.5F);
  test::Background slow([] { return speakAt(1, kHeavy); });
  test::Background fast([] { return speakAt(5, kHeavy); });
  EXPECT_EQ(slow.get(), expectedSlow);
  EXPECT_EQ(fast.get(), expectedFast);
}

}  // namespace
