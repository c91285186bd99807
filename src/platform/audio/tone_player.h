#pragma once

#include <array>
#include <memory>

#include "platform/audio/line.h"
#include "platform/audio/tones.h"
#include "platform/thread.h"

namespace platform::audio {

/// Plays one tone on the line until it is stopped, on a thread "QS_ToneThread" of its own. Its
/// owner calls `start` once, and `stop` where that succeeded.
class TonePlayer final : private Thread {
 public:
  TonePlayer(std::shared_ptr<Line> toneLine, const Tone& tone);

  /// Takes the line and begins to sound: 0, or a negative status where the line is taken or does
  /// not open.
  int start();

  /// Ends the tone and gives the line back when what waits was heard.
  void stop();

 private:
  bool threadLoop() override;

  const std::shared_ptr<Line> line;
  int handle = 0;                                // constant while the thread runs
  ToneGenerator generator;                       // the thread's alone
  std::array<std::int16_t, kStepFrames> step{};  // the thread's alone
};

}  // namespace platform::audio
