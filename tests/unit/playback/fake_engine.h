#pragma once

#include <functional>
#include <string>

#include "tts/speech_engine.h"

namespace test {

/// Stands in for the speech engine: every text is `kChunks` chunks of `kChunkSamples` samples whose
/// value is the text's first character. Keeps the engine's promises about the hooks, the callback
/// and what comes back of an abandoned text.
struct FakeEngine {
  static constexpr int kChunkSamples = 400;
  static constexpr int kChunks = 4;
  static constexpr int kTextSamples = kChunks * kChunkSamples;

  /// Called on the synthesising thread before each chunk of a text, with the chunk's number.
  std::function<void(const std::string&, int)> onChunk = [](const std::string&, int) {};
  std::vector<std::string> texts;
  qs_ns::QS_StreamUserData lastUserData;

  FakeEngine();
  ~FakeEngine();

  qs_ns::Wave synthesise(const char* text, qs_ns::StreamCallback callback,
                         qs_ns::QS_StreamUserData* userData);
};

}  // namespace test
