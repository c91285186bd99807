#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <vector>

#include <alsa/asoundlib.h>

#include "platform/audio/output.h"
#include "platform/audio/pacer.h"
#include "platform/audio/sound_depth.h"
#include "platform/condition.h"
#include "platform/mutex.h"

namespace platform::audio {

/// An ALSA PCM. Its calls may block without limit where a sound server hangs, so it is used behind
/// `GuardedOutput` only. Destroyed with a stream open, it drops what waits.
///
/// Of the PCM's buffer, 80 ms where it is granted, no more than the depth is filled; the rest is
/// room for a depth that grows. A stream ends with silence up to a whole period. A close leaves the
/// PCM as it is when all was heard; what a sound server has of it in its own buffers sounds on,
/// until `rest` or the next stream.
class AlsaOutput final : public Device {
 public:
  /// `learntDepth` outlives the device, which is given back when nothing sounds.
  AlsaOutput(std::string pcmName, std::shared_ptr<SoundDepth> learntDepth);
  ~AlsaOutput() override;

  int open(std::string& why) override;
  int write(const std::int16_t* samples, std::size_t frames) override;
  int close() override;
  void drop() override;
  void finishDrop() override;
  void rest() override;
  void release() override;

 private:
  struct PcmCloser {
    void operator()(snd_pcm_t* handle) const { snd_pcm_close(handle); }
  };
  /// What was written last, to be faded out when it is dropped.
  class Trail {
   public:
    /// Makes room for so many frames; forgets what there was.
    void fit(std::size_t frames) { ring.assign(frames, 0), end = 0; }
    void add(const std::int16_t* samples, std::size_t frames);
    /// Copies `frames` from `ago` frames before the end.
    void copy(std::size_t ago, std::size_t frames, std::int16_t* to) const;

   private:
    std::vector<std::int16_t> ring;
    std::size_t end = 0;
  };

  int resume();
  int prepare();
  int openAnew(std::string& why);
  int openPcm(const std::string& pcmName);
  int configure();
  int configureHardware();
  int configureStart();
  int writePiece(const std::int16_t* samples, std::size_t frames, MonotonicTime deadline);
  int writeToPcm(const std::int16_t* samples, std::size_t frames);
  int waitForRoom(std::size_t frames, MonotonicTime deadline);
  int waitUntilHeard();
  void fillLastPeriod();
  int startIfPrepared();
  int recover(int status);
  int waitingFrames();
  std::size_t awaitNextBite();
  void pause(std::chrono::nanoseconds duration);

  const std::string name;
  std::unique_ptr<snd_pcm_t, PcmCloser> pcm;
  std::size_t bufferFrames = 0;
  std::size_t periodFrames = 1;
  std::size_t sincePrepared = 0;  // frames written to the PCM since it was prepared
  const std::shared_ptr<SoundDepth> depth;
  bool failed = false;   // has a write failed, so that nothing is left to be heard?
  bool started = false;  // was anything written to the stream?
  bool dropped = false;  // was done what `drop` asked for?
  Pacer pacer;           // how far the sound taken is ahead of real time
  Trail trail;

  Mutex dropMutex{true};
  Condition dropWanted;
  std::atomic<bool> dropAsked{false};  // set with `dropMutex` held
};

}  // namespace platform::audio
