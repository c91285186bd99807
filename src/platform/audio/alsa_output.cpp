#include "platform/audio/alsa_output.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/audio/alsa_errors.h"
#include "platform/clock.h"

namespace platform::audio {

namespace {

using std::chrono::milliseconds;

constexpr snd_pcm_uframes_t kBufferFrames = 3840;  // 80 ms
// 5 ms. With longer periods a sound server takes the sound in larger bites, and adds to the delay.
constexpr snd_pcm_uframes_t kPeriodFrames = 240;
// 120 ms. A sound server takes some sound at once into buffers of its own; a PCM that goes on
// taking it faster than it can be heard (ALSA's null and file) has no clock, and gets ours.
constexpr std::size_t kMostAheadFrames = 5760;
// A device that moves nothing for this long has stalled. Shorter than what the guard allows, so
// that the thread comes back wherever ALSA itself does not block.
constexpr milliseconds kStallLimit{800};
constexpr milliseconds kShortestSleep{1};

}  // namespace

AlsaOutput::AlsaOutput(std::string pcmName) : name(std::move(pcmName)) {}

AlsaOutput::~AlsaOutput() {
  if (pcm) snd_pcm_drop(pcm.get());
}

int AlsaOutput::open(std::string& why) {
  collectAlsaErrors();
  int status = openPcm(name);
  if (status >= 0) status = configure();
  if (status < 0 && pcm) {
    // It is there but does not do mono at 48,000.
    status = openPcm("plug:SLAVE='" + name + "'");
    if (status >= 0) status = configure();
  }
  if (status < 0) {
    why = describeAlsaError(status);
    pcm.reset();
  }
  failed = false;
  pacer.restart();
  return status;
}

int AlsaOutput::openPcm(const std::string& pcmName) {
  pcm.reset();
  snd_pcm_t* handle = nullptr;
  // Without waiting for whoever else may have the device; the calls after it do wait.
  const int status =
      snd_pcm_open(&handle, pcmName.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
  if (status < 0) return status;
  pcm.reset(handle);
  return snd_pcm_nonblock(handle, 0);
}

int AlsaOutput::configure() {
  const int status = configureHardware();
  return status < 0 ? status : configureStart();
}

int AlsaOutput::configureHardware() {
  snd_pcm_hw_params_t* wanted = nullptr;
  snd_pcm_hw_params_alloca(&wanted);
  snd_pcm_t* const p = pcm.get();
  snd_pcm_uframes_t period = kPeriodFrames;
  snd_pcm_uframes_t buffer = kBufferFrames;
  int status = snd_pcm_hw_params_any(p, wanted);
  if (status >= 0) status = snd_pcm_hw_params_set_access(p, wanted, SND_PCM_ACCESS_RW_INTERLEAVED);
  if (status >= 0) status = snd_pcm_hw_params_set_format(p, wanted, SND_PCM_FORMAT_S16);
  if (status >= 0) status = snd_pcm_hw_params_set_channels(p, wanted, 1);
  if (status >= 0) status = snd_pcm_hw_params_set_rate(p, wanted, kFramesPerSecond, 0);
  if (status >= 0) status = snd_pcm_hw_params_set_period_size_near(p, wanted, &period, nullptr);
  if (status >= 0) status = snd_pcm_hw_params_set_buffer_size_near(p, wanted, &buffer);
  if (status >= 0) status = snd_pcm_hw_params(p, wanted);
  if (status >= 0) status = snd_pcm_get_params(p, &buffer, &period);
  bufferFrames = buffer;
  // A device with periods above 10 ms starves on less than two of them.
  depthFrames = std::min<std::size_t>(std::max<std::size_t>(kDepthFrames, 2 * period), buffer);
  return std::min(status, 0);
}

int AlsaOutput::configureStart() {
  snd_pcm_sw_params_t* wanted = nullptr;
  snd_pcm_sw_params_alloca(&wanted);
  // No more than half the depth: a caller that has to wait for room must wait for a device that
  // runs.
  const snd_pcm_uframes_t startAt = std::min<std::size_t>(kStepFrames, depthFrames / 2);
  int status = snd_pcm_sw_params_current(pcm.get(), wanted);
  if (status >= 0) status = snd_pcm_sw_params_set_start_threshold(pcm.get(), wanted, startAt);
  if (status >= 0) status = snd_pcm_sw_params(pcm.get(), wanted);
  return std::min(status, 0);
}

int AlsaOutput::write(const std::int16_t* samples, std::size_t frames) {
  const MonotonicTime deadline = clock().now() + kStallLimit;
  while (frames > 0) {
    const std::size_t piece = std::min(frames, std::max<std::size_t>(depthFrames / 2, 1));
    const int taken = writePiece(samples, piece, deadline);
    if (taken < 0) {
      failed = true;
      return taken;
    }
    samples += taken;
    frames -= static_cast<std::size_t>(taken);
  }
  return 0;
}

/// The frames taken, or the negative status of a device that cannot be recovered. An underrun
/// costs a gap but no sample: what was not taken is written again.
int AlsaOutput::writePiece(const std::int16_t* samples, std::size_t frames,
                           MonotonicTime deadline) {
  for (;;) {
    if (const int status = waitForRoom(frames, deadline); status < 0) return status;
    const auto taken = static_cast<int>(snd_pcm_writei(pcm.get(), samples, frames));
    if (taken > 0) {
      pacer.add(static_cast<std::size_t>(taken));
      return taken;
    }
    if (taken < 0) {
      if (const int status = snd_pcm_recover(pcm.get(), taken, 1); status < 0) return status;
    }
    if (clock().now() >= deadline) return -EIO;
  }
}

int AlsaOutput::waitForRoom(std::size_t frames, MonotonicTime deadline) {
  bool waited = false;
  for (;;) {
    const int waiting = waitingFrames();
    if (waiting < 0) return waiting;
    const auto inDevice = static_cast<std::size_t>(waiting);
    if (inDevice + frames <= depthFrames) {
      // A device that makes us wait has a clock, which need not agree with ours.
      if (waited) pacer.setWaiting(inDevice);
      break;
    }
    if (clock().now() >= deadline) return -EIO;
    const auto tooMany = static_cast<std::int64_t>(inDevice + frames - depthFrames);
    clock().sleepFor(std::max<std::chrono::nanoseconds>(durationOf(tooMany), kShortestSleep));
    waited = true;
  }
  pacer.waitForRoom(frames, kMostAheadFrames);
  return 0;
}

/// How much sound waits in the PCM's buffer, or the negative status of a lost device.
int AlsaOutput::waitingFrames() {
  const snd_pcm_sframes_t room = snd_pcm_avail(pcm.get());
  if (room < 0) return snd_pcm_recover(pcm.get(), static_cast<int>(room), 1);
  return static_cast<int>(bufferFrames - std::min(static_cast<std::size_t>(room), bufferFrames));
}

int AlsaOutput::close() {
  const int status = failed ? snd_pcm_drop(pcm.get()) : snd_pcm_drain(pcm.get());
  if (!failed && status >= 0) pacer.drain();
  pcm.reset();
  return status;
}

}  // namespace platform::audio
