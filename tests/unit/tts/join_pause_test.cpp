#include "tts/join_pause.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "tts/wave.h"

namespace {

using qs_ns::JoinPause;

constexpr int kMs = 16;  // samples in a millisecond

/// A piece as Flite makes it: near silence, sound, near silence.
qs_ns::Wave makePiece(int leadMs, int tailMs, short noise, short sound) {
  constexpr int kSoundMs = 300;
  qs_ns::Wave wave(new_wave());
  wave->sample_rate = 16000;
  cst_wave_resize(wave.get(), (leadMs + kSoundMs + tailMs) * kMs, 1);
  for (int i = 0; i < wave->num_samples; ++i) {
    const bool sounds = i >= leadMs * kMs && i < (leadMs + kSoundMs) * kMs;
    wave->samples[i] = static_cast<short>((i % 2 == 0 ? 1 : -1) * (sounds ? sound : noise));
  }
  return wave;
}

TEST(JoinPause, IsLeftLongEnoughAndNotTooLong) {
  const struct {
    const char* name;
    int tailMs, leadMs;
    short noise, sound;
    int silenceMs, keptMs;
  } rows[] = {
      {"usual", 100, 180, 15, 3000, 0, 50},
      {"long tail", 140, 180, 15, 3000, 0, 30},
      {"very long tail", 220, 180, 15, 3000, 0, 30},
      {"short tail", 50, 180, 15, 3000, 0, 100},
      {"nothing to leave out", 50, 80, 15, 3000, 0, 80},
      {"too short", 25, 65, 15, 3000, 10, 65},
      {"as soft as a consonant", 100, 180, 15, 62, 0, 50},
      {"no louder than noise", 100, 180, 30, 100, 0, -1},
      {"soft in digital silence", 100, 180, 0, 49, 0, 50},
      {"begins with sound", 100, 0, 0, 120, 0, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    JoinPause pause;
    const qs_ns::Wave first = makePiece(200, row.tailMs, 15, 3000);
    const JoinPause::Samples all = pause.cut(*first, 0, first->num_samples);
    EXPECT_EQ(all.count, first->num_samples) << "of the first piece nothing is left out";
    pause.endPiece(*first);
    const qs_ns::Wave second = makePiece(row.leadMs, 100, row.noise, row.sound);
    constexpr int kChunk = 400;
    int kept = 0;
    int silence = 0;
    for (int at = 0; at < second->num_samples; at += kChunk) {
      const int size = std::min(kChunk, second->num_samples - at);
      const JoinPause::Samples next = pause.cut(*second, at, size);
      EXPECT_EQ(next.start + next.count, at + size);
      kept += next.count;
      silence += next.silence;
    }
    EXPECT_EQ(kept - (row.keptMs < 0 ? 0 : 400 * kMs), row.keptMs < 0 ? 0 : row.keptMs * kMs);
    EXPECT_EQ(silence, row.silenceMs * kMs);
  }
}

TEST(JoinPause, CountsFromTheLastSoundAcrossAPieceOfSilence) {
  JoinPause pause;
  const qs_ns::Wave sound = makePiece(200, 70, 15, 3000);
  const qs_ns::Wave silence = makePiece(200, 100, 15, 15);
  pause.endPiece(*sound);
  EXPECT_EQ(pause.cut(*silence, 0, silence->num_samples).count, 0);
  pause.endPiece(*silence);
  EXPECT_EQ(pause.cut(*sound, 0, sound->num_samples).start, (200 - 80) * kMs);
}

}  // namespace
