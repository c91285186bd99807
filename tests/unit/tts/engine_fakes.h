#pragma once

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include <flite/flite.h>

#include "tts/speech_engine.h"

namespace test {

/// What the property store answers in these programs; a key that is not here is a failed read.
struct Properties {
  std::map<std::string, int> integers;
  std::map<std::string, std::string> strings;
  int reads = 0;
};
Properties& properties();

/// The voice draws its noise from rand(), which always gives the same number here, so that one text
/// always sounds the same. Once `left` samples of noise are drawn, `stop` is set.
struct Noise {
  std::atomic<long> drawn{0};
  std::atomic<long> left{-1};
  std::atomic<bool> stop{false};
};
Noise& noise();

using Samples = std::vector<short>;

/// The samples of a wave, none for null.
Samples samplesOf(const cst_wave* wave);
/// Flite's own wave of a text, without the engine.
Samples fliteAlone(const std::string& text, float stretch = 0.75F);

}  // namespace test
