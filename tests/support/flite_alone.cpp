#include "support/flite_alone.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>

#include <gtest/gtest.h>

#include "tts/speech_engine.h"
#include "tts/utterance_pieces.h"

namespace test {

Noise& noise() {
  static Noise instance;
  return instance;
}

std::vector<short> samplesOf(const cst_wave* wave) {
  if (wave == nullptr) return {};
  return {wave->samples, wave->samples + wave->num_samples};
}

std::vector<short> fliteAlone(const std::string& text, float stretch) {
  cst_voice* voice = qs_ns::qs_fetch_voice(0);
  qs_ns::voiceMutex.lock();
  const qs_ns::VoiceHold hold(qs_ns::voiceMutex);
  feat_set_float(voice->features, "duration_stretch", stretch);
  const qs_ns::Wave wave(flite_text_to_wave(text.c_str(), voice));
  return samplesOf(wave.get());
}

std::vector<short> fliteInPieces(const std::string& text, float stretch) {
  std::vector<short> all;
  for (const auto piece : qs_ns::cutIntoPieces(text)) {
    const std::vector<short> part = fliteAlone(std::string(piece), stretch);
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

namespace {

constexpr std::ptrdiff_t kMs = 16;  // samples in a millisecond

// Flite's silence has peaks of 75, what it says begins and ends with more than 100.
bool isAudible(short sample) {
  return std::abs(sample) >= 100;
}

}  // namespace

void expectJoined(const std::vector<short>& heard, const std::vector<std::vector<short>>& pieces) {
  auto at = heard.begin();
  std::ptrdiff_t quiet = 0;
  for (const std::vector<short>& piece : pieces) {
    auto from = piece.begin();
    const auto onset = std::find_if(piece.begin(), piece.end(), isAudible);
    if (at != heard.begin()) {
      // What is left out is found by what follows it.
      from = std::search(piece.begin(), onset, at, std::min(at + 20 * kMs, heard.end()));
      ASSERT_GE(onset - from, 20 * kMs) << "sound was lost, or all but";
      const std::ptrdiff_t pause = quiet + (onset - from);
      EXPECT_TRUE(pause >= 100 * kMs && pause <= 250 * kMs) << pause / kMs;
    }
    ASSERT_LE(piece.end() - from, heard.end() - at);
    ASSERT_TRUE(std::equal(from, piece.end(), at));
    at += piece.end() - from;
    quiet = std::find_if(piece.rbegin(), piece.rend(), isAudible) - piece.rbegin();
  }
  EXPECT_EQ(at, heard.end());
}

}  // namespace test

extern "C" int rand() noexcept {
  auto& noise = test::noise();
  ++noise.drawn;
  if (noise.left >= 0 && noise.left-- == 0) noise.then();
  return 1;
}
