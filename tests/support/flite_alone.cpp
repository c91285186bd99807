#include "support/flite_alone.h"

#include <cstdlib>

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

}  // namespace test

extern "C" int rand() noexcept {
  auto& noise = test::noise();
  ++noise.drawn;
  if (noise.left >= 0 && noise.left-- == 0) noise.then();
  return 1;
}
