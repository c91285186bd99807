#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "tts/speech_engine.h"
#include "tts/text_guard.h"
#include "tts/utterance_pieces.h"

// Any bytes as a text: the guard's promises, and Flite with what it lets through.

namespace {

using namespace qs_ns;

void require(bool held) {
  if (!held) std::abort();
}

/// The first chunk has passed everything in Flite that depends on the text.
int stopAtOnce(const cst_wave*, int, int, int, cst_audio_streaming_info*) {
  return CST_AUDIO_STREAM_STOP;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  qs_flite_init();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string safe = guardText(text);
  require(guardText(safe) == safe);
  require(textWeight(text) >= text.size());
  std::size_t length = 0;
  for (const std::string_view piece : cutIntoPieces(safe)) {
    require(textWeight(piece) <= kMaxPieceWeight);
    length += piece.size();
  }
  require(length <= safe.size());
  // What the voice does with a text takes as long as it has sound; more texts find more than
  // longer.
  constexpr std::size_t kSpokenWeight = 100;
  if (textWeight(safe) > kSpokenWeight) return 0;
  // A blank is spoken for a NUL, where a C string would end.
  std::string spoken = text;
  for (char& character : spoken)
    if (character == '\0') character = ' ';
  require(qs_flite_tts_stream(spoken.c_str(), stopAtOnce, nullptr, true) != nullptr);
  return 0;
}
