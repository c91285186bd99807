#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "tts/speech_engine.h"
#include "tts/wave.h"

namespace test {

/// The moments of a synthesis: before the voice is taken, before each of three chunks, and after
/// the last.
enum class Stage { none, start, first, middle, last, done };

/// How a synthesis ends that nobody abandons.
enum class Outcome { whole, empty, null };

/// A wave of 16 kHz whose samples are all `value`.
qs_ns::Wave makeWave(int samples, short value);

/// The speech engine of this program: every text gives three chunks of its first character, but the
/// very last sample is the number of the synthesis. Keeps the real one's promises about the voice,
/// the hooks, the callback and what comes back of an abandoned text. One exists at a time; set it
/// up before its callers run.
class FakeSpeech {
 public:
  static constexpr int kChunk = 480;
  static constexpr int kSamples = 3 * kChunk;
  static constexpr int kSpeed = 4;

  FakeSpeech();
  ~FakeSpeech();

  /// Called at every stage of the n-th synthesis (from 0), on the thread that synthesises.
  std::function<void(int synthesis, Stage stage)> at = [](int, Stage) {};
  std::function<Outcome(int synthesis)> outcome = [](int) { return Outcome::whole; };

  /// The texts asked for so far, and of the newest: not to be read while there may be more.
  std::vector<std::string> texts;
  qs_ns::QS_StreamUserData lastUserData;

  qs_ns::Wave synthesise(const char* text, qs_ns::StreamCallback callback,
                         qs_ns::QS_StreamUserData& userData);

 private:
  qs_ns::Wave speak(int number, char sample, qs_ns::StreamCallback callback,
                    qs_ns::QS_StreamUserData& userData);

  /// Is a synthesis under way?
  std::atomic<bool> busy{false};
};

}  // namespace test
