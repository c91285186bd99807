#pragma once

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/scratch_folder.h"

namespace test {

/// Points this program, and those that it starts later, at a sound server in `folder`; ALSA reaches
/// it as `alsa:pulse`. There may be none.
void useSoundServer(const ScratchFolder& folder);

/// A PulseAudio server with one sink, which keeps time as a sound card does and sounds nowhere.
/// Fails the test where it does not start.
class SoundServer {
 public:
  explicit SoundServer(const ScratchFolder& folder);

  void signal(int number) const { kill(process.id(), number); }

 private:
  ChildProcess process;
};

/// What the sound server in use plays, mono at 48 kHz, from construction on.
class SoundRecording {
 public:
  SoundRecording();
  ~SoundRecording();
  SoundRecording(const SoundRecording&) = delete;
  SoundRecording& operator=(const SoundRecording&) = delete;

  /// Blocks for the next sample.
  std::int16_t next();
  /// The next `frames` samples that are no silence, with what silence there is between them on a
  /// busy machine left out. Stops after 10 s of it.
  std::vector<std::int16_t> take(std::size_t frames);
  /// Until `frames` samples in a row were silent, or 10 s of sound have come.
  void awaitSilence(int frames);

 private:
  FILE* pipe;
};

}  // namespace test
