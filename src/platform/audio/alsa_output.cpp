#include "platform/audio/alsa_output.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/audio/alsa_errors.h"
#include "platform/clock.h"

namespace platform::audio {

namespace {

using std::chrono::milliseconds;

constexpr snd_pcm_uframes_t kBufferFrames = kMostDepthFrames;
// 5 ms. With longer periods a sound server takes the sound in larger bites, and adds to the delay.
constexpr snd_pcm_uframes_t kPeriodFrames = 240;
// 120 ms. A sound server takes some sound at once into buffers of its own; a PCM that goes on
// taking it faster than it can be heard (ALSA's null and file) has no clock, and gets ours.
constexpr std::size_t kMostAheadFrames = 5760;
// A device that moves nothing for this long has stalled. Shorter than what the guard allows, so
// that the thread comes back wherever ALSA itself does not block.
constexpr milliseconds kStallLimit{800};
constexpr milliseconds kShortestSleep{1};
// 5 ms, over which dropped sound fades out.
constexpr std::size_t kFadeFrames = 240;
constexpr std::array<std::int16_t, kMostDepthFrames> kSilence{};
// A stop waits no longer for the end of a period: what is heard meanwhile costs more than a click.
constexpr milliseconds kLongestBite{20};

void fadeOut(std::int16_t* samples, std::size_t frames) {
  for (std::size_t i = 0; i < frames; ++i)
    samples[i] = static_cast<std::int16_t>(samples[i] * static_cast<int>(frames - i) /
                                           static_cast<int>(frames));
}

}  // namespace

void AlsaOutput::Trail::add(const std::int16_t* samples, std::size_t frames) {
  for (std::size_t i = 0; i < frames; ++i) {
    ring[end] = samples[i];
    end = (end + 1) % ring.size();
  }
}

void AlsaOutput::Trail::copy(std::size_t ago, std::size_t frames, std::int16_t* to) const {
  ago = std::min(ago, ring.size());
  for (std::size_t i = 0; i < frames; ++i)
    to[i] = ring[(end + ring.size() - ago + i) % ring.size()];
}

AlsaOutput::AlsaOutput(std::string pcmName, std::shared_ptr<SoundDepth> learntDepth)
    : name(std::move(pcmName)), depth(std::move(learntDepth)) {}

AlsaOutput::~AlsaOutput() {
  if (pcm) snd_pcm_drop(pcm.get());
}

int AlsaOutput::open(std::string& why) {
  collectAlsaErrors();
  int status = resume();
  if (status < 0) status = openAnew(why);
  failed = started = dropped = false;
  dropAsked = false;
  pacer.restart();
  return status;
}

/// 0 where the PCM of the stream before goes on; a negative status where there is none, or where
/// its device has gone meanwhile.
int AlsaOutput::resume() {
  if (!pcm) return -ENODEV;
  const bool runs = snd_pcm_state(pcm.get()) == SND_PCM_STATE_RUNNING && waitingFrames() >= 0;
  return runs ? 0 : prepare();
}

int AlsaOutput::prepare() {
  sincePrepared = 0;
  return snd_pcm_prepare(pcm.get());
}

int AlsaOutput::openAnew(std::string& why) {
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
  periodFrames = period;
  trail.fit(std::max(bufferFrames, kFadeFrames));
  sincePrepared = 0;
  depth->setDevice(period, buffer);
  return std::min(status, 0);
}

int AlsaOutput::configureStart() {
  snd_pcm_sw_params_t* wanted = nullptr;
  snd_pcm_sw_params_alloca(&wanted);
  // No more than half the depth: a caller that has to wait for room must wait for a device that
  // runs.
  const snd_pcm_uframes_t startAt = std::min(kStepFrames, depth->frames() / 2);
  int status = snd_pcm_sw_params_current(pcm.get(), wanted);
  if (status >= 0) status = snd_pcm_sw_params_set_start_threshold(pcm.get(), wanted, startAt);
  // A device that runs past the end of the sound must not play what lies in its buffer from before.
  snd_pcm_uframes_t boundary = 0;
  if (status >= 0) status = snd_pcm_sw_params_get_boundary(wanted, &boundary);
  if (status >= 0) status = snd_pcm_sw_params_set_silence_size(pcm.get(), wanted, boundary);
  if (status >= 0) status = snd_pcm_sw_params(pcm.get(), wanted);
  return std::min(status, 0);
}

int AlsaOutput::write(const std::int16_t* samples, std::size_t frames) {
  const MonotonicTime now = clock().now();
  if (started && !dropAsked) depth->noteSound(now, pacer.endOfSound());
  started = true;
  while (frames > 0 && !dropAsked) {
    const std::size_t piece = std::min(frames, std::max<std::size_t>(depth->frames() / 2, 1));
    const int taken = writePiece(samples, piece, now + kStallLimit);
    if (taken < 0) {
      failed = true;
      return taken;
    }
    trail.add(samples, static_cast<std::size_t>(taken));
    samples += taken;
    frames -= static_cast<std::size_t>(taken);
  }
  finishDrop();
  return 0;
}

/// The frames taken, 0 where the stream is dropped, or the negative status of a device that cannot
/// be recovered. An underrun costs a gap but no sample: what was not taken is written again.
int AlsaOutput::writePiece(const std::int16_t* samples, std::size_t frames,
                           MonotonicTime deadline) {
  for (int turn = 0;; ++turn) {
    // A device that fails again after each recovery.
    if (turn > 1) pause(kShortestSleep);
    if (const int status = waitForRoom(frames, deadline); status < 0) return status;
    if (dropAsked) return 0;
    const int taken = writeToPcm(samples, frames);
    if (taken > 0) {
      pacer.add(static_cast<std::size_t>(taken));
      return taken;
    }
    if (taken < 0) {
      if (const int status = recover(taken); status < 0) return status;
    }
    if (clock().now() >= deadline) return -EIO;
  }
}

/// The frames taken, or a negative status.
int AlsaOutput::writeToPcm(const std::int16_t* samples, std::size_t frames) {
  const auto taken = static_cast<int>(snd_pcm_writei(pcm.get(), samples, frames));
  sincePrepared += static_cast<std::size_t>(std::max(taken, 0));
  return taken;
}

int AlsaOutput::waitForRoom(std::size_t frames, MonotonicTime deadline) {
  bool waited = false;
  while (!dropAsked) {
    const int waiting = waitingFrames();
    if (waiting < 0) {
      // The sound ran out while we slept; before that it was the caller who was away.
      if (waiting == -EPIPE && waited) depth->noteUnderrun(clock().now());
      if (const int status = recover(waiting); status < 0) return status;
    }
    const auto inDevice = static_cast<std::size_t>(std::max(waiting, 0));
    if (inDevice + frames <= depth->frames()) {
      // A device that makes us wait has a clock, which need not agree with ours.
      if (waited) pacer.setWaiting(inDevice);
      break;
    }
    if (clock().now() >= deadline) return -EIO;
    const auto tooMany = static_cast<std::int64_t>(inDevice + frames - depth->frames());
    pause(std::max<std::chrono::nanoseconds>(durationOf(tooMany), kShortestSleep));
    waited = true;
  }
  if (!dropAsked) pacer.waitForRoom(frames, kMostAheadFrames);
  return 0;
}

/// Sleeps, but for no longer than until the stream is dropped.
void AlsaOutput::pause(std::chrono::nanoseconds duration) {
  const MonotonicTime end = clock().now() + duration;
  const MutexLock lock(dropMutex);
  while (!dropAsked && clock().waitUntil(dropWanted, dropMutex, end)) {
  }
}

/// 0 where the PCM can go on from `status`, else the negative status of a lost device.
int AlsaOutput::recover(int status) {
  // As ALSA's own way, but that one waits for a suspended device in steps of a second.
  if (status == -EPIPE || status == -ESTRPIPE) return prepare();
  return status == -EINTR ? 0 : status;
}

/// How much sound waits in the PCM's buffer; -EPIPE where it has run out, or another negative
/// status.
int AlsaOutput::waitingFrames() {
  const snd_pcm_sframes_t room = snd_pcm_avail(pcm.get());
  if (room < 0) return static_cast<int>(room);
  return static_cast<int>(bufferFrames - std::min(static_cast<std::size_t>(room), bufferFrames));
}

int AlsaOutput::close() {
  if (!pcm) return 0;
  finishDrop();
  const int status = failed ? -EIO : waitUntilHeard();
  // Nothing of it is good for another stream.
  if (status < 0) {
    snd_pcm_drop(pcm.get());
    pcm.reset();
  }
  return status;
}

// Not by a drain: a sound server waits for its own buffers too, up to 100 ms and more, which are
// heard in any case. So what has run out is left as it is: to prepare it for the next stream makes
// a server forget them.
int AlsaOutput::waitUntilHeard() {
  fillLastPeriod();
  // Too short to have started by itself.
  startIfPrepared();
  const MonotonicTime deadline = clock().now() + kStallLimit;
  for (int waiting = waitingFrames(); waiting != 0; waiting = waitingFrames()) {
    if (waiting == -EPIPE) break;
    if (waiting < 0) return waiting;
    if (clock().now() >= deadline) return -EIO;
    clock().sleepFor(std::max<std::chrono::nanoseconds>(durationOf(waiting), kShortestSleep));
  }
  pacer.drain();
  return 0;
}

/// A PCM that converts between rates keeps back what does not fill a period.
void AlsaOutput::fillLastPeriod() {
  const std::size_t over = sincePrepared % periodFrames;
  if (over != 0) writeToPcm(kSilence.data(), std::min(periodFrames - over, kSilence.size()));
}

int AlsaOutput::startIfPrepared() {
  if (snd_pcm_state(pcm.get()) != SND_PCM_STATE_PREPARED || waitingFrames() <= 0) return 0;
  return snd_pcm_start(pcm.get());
}

void AlsaOutput::drop() {
  {
    const MutexLock lock(dropMutex);
    dropAsked = true;
  }
  dropWanted.notifyAll();
}

void AlsaOutput::finishDrop() {
  if (!dropAsked || dropped || failed || !pcm) return;
  dropped = true;
  const std::size_t waiting = awaitNextBite();
  const std::size_t faded = std::min(waiting, kFadeFrames);
  pacer.setWaiting(faded);
  if (faded == 0) return;
  std::array<std::int16_t, kFadeFrames> fade;
  trail.copy(waiting, faded, fade.data());
  fadeOut(fade.data(), faded);
  int status = snd_pcm_drop(pcm.get());
  if (status >= 0) status = prepare();
  if (status >= 0) status = writeToPcm(fade.data(), faded);
  if (status >= 0) {
    fillLastPeriod();
    status = startIfPrepared();
  }
  failed = status < 0;
}

/// How much waits, as of a moment at which the device has just taken some of it: what is put in the
/// place of the rest then continues what was heard. A sound server takes bites of a period.
std::size_t AlsaOutput::awaitNextBite() {
  constexpr std::chrono::microseconds kLook{500};
  const auto period = durationOf(static_cast<std::int64_t>(periodFrames));
  const MonotonicTime deadline =
      clock().now() + std::min<std::chrono::nanoseconds>(period, kLongestBite) + milliseconds(1);
  const int before = waitingFrames();
  int waiting = before;
  while (waiting == before && waiting > 0 && clock().now() < deadline) {
    clock().sleepFor(kLook);
    waiting = waitingFrames();
  }
  return static_cast<std::size_t>(std::max(waiting, 0));
}

void AlsaOutput::rest() {
  // And no more: a sound server keeps time again for a stream that is prepared.
  if (pcm) snd_pcm_drop(pcm.get());
}

void AlsaOutput::release() {
  pcm.reset();
}

}  // namespace platform::audio
