#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tts/speech_engine.h"
#include "tts/wave.h"

namespace test {

/// The moments of a synthesis: before the voice is taken, before the second and before the last of
/// three chunks, and after the last.
enum class Stage { none, start, middle, last, done };

/// How a synthesis ends that nobody abandons.
enum class Outcome { whole, empty, null };

/// A wave of 16 kHz whose samples are all `value`.
qs_ns::Wave makeWave(int samples, short value);
/// Waves made and not yet deleted.
int liveWaves();

/// The speech engine of this program: every text gives three chunks of 400 samples of its number,
/// the very last of which is `kLastSample` more, abandoned as the real engine abandons. One exists
/// at a time; set it up before its callers run.
class FakeSpeech {
 public:
  static constexpr int kSamples = 1200;
  static constexpr int kLastSample = 1000;
  static constexpr int kSpeed = 4;

  FakeSpeech();
  ~FakeSpeech();

  /// Called at every stage of the n-th synthesis (from 0), on the thread that synthesises.
  std::function<void(int synthesis, Stage stage)> at = [](int, Stage) {};
  std::function<Outcome(int synthesis)> outcome = [](int) { return Outcome::whole; };

  /// How many syntheses were not given up before they began.
  std::atomic<int> begun{0};

  /// The texts asked for so far, in order.
  std::vector<std::string> texts();

  qs_ns::Wave synthesise(const char* text, qs_ns::StreamCallback callback,
                         qs_ns::QS_StreamUserData& userData);

 private:
  qs_ns::Wave speak(int number, qs_ns::StreamCallback callback, qs_ns::QS_StreamUserData& userData);

  std::mutex mutex;
  std::vector<std::string> asked;
  /// Is a synthesis under way?
  std::atomic<bool> busy{false};
};

}  // namespace test
