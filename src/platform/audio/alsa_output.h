#pragma once

#include <memory>

#include <alsa/asoundlib.h>

#include "platform/audio/output.h"
#include "platform/audio/pacer.h"

namespace platform::audio {

/// An ALSA PCM. Its calls may block without limit where a sound server hangs, so it is used behind
/// `GuardedOutput` only. Destroyed with a stream open, it drops what waits.
///
/// Of the PCM's buffer, 80 ms where it is granted, no more than kDepthFrames are filled; the rest
/// is room that the device does not need.
class AlsaOutput final : public Output {
 public:
  explicit AlsaOutput(std::string pcmName);
  ~AlsaOutput() override;

  int open(std::string& why) override;
  int write(const std::int16_t* samples, std::size_t frames) override;
  int close() override;

 private:
  struct PcmCloser {
    void operator()(snd_pcm_t* handle) const { snd_pcm_close(handle); }
  };

  int openPcm(const std::string& pcmName);
  int configure();
  int configureHardware();
  int configureStart();
  int writePiece(const std::int16_t* samples, std::size_t frames, MonotonicTime deadline);
  int waitForRoom(std::size_t frames, MonotonicTime deadline);
  int waitingFrames();

  const std::string name;
  std::unique_ptr<snd_pcm_t, PcmCloser> pcm;
  std::size_t bufferFrames = 0;
  std::size_t depthFrames = 0;
  bool failed = false;  // has a write failed, so that nothing is left to be heard?
  Pacer pacer;          // how far the sound taken is ahead of real time
};

}  // namespace platform::audio
