#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include <flite/flite.h>

namespace test {

/// The voice draws its noise from rand(), which in a program with this file always gives the same
/// number, so that one text always sounds the same. Once `left` samples of noise are drawn, `then`
/// is called, on the thread that synthesises.
struct Noise {
  std::atomic<long> drawn{0};
  std::atomic<long> left{-1};
  std::function<void()> then;  // not to be changed during a synthesis
};
Noise& noise();

/// The samples of a wave, none for null.
std::vector<short> samplesOf(const cst_wave* wave);

/// What Flite alone makes of a text as one utterance, and of the pieces into which it is cut for a
/// file. Takes the engine's voice.
std::vector<short> fliteAlone(const std::string& text, float stretch = 0.75F);
std::vector<short> fliteInPieces(const std::string& text, float stretch = 0.75F);

/// Expects of `heard` that it is the pieces' samples one after the other, but for near silence at
/// the start of later ones, and that the pauses at the joins last 100 to 250 ms.
void expectJoined(const std::vector<short>& heard, const std::vector<std::vector<short>>& pieces);

}  // namespace test
