#include "playback/write_tts_thread.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "core/interfaces/controller_base.h"
#include "core/interfaces/media_interface_base.h"

namespace qs_ns {

namespace {

// The media interface holds the gain as a wide integer; the sound path works with its low 16 bits.
std::int16_t gainOf(QS_MediaInterfaceBase& media) {
  return static_cast<std::int16_t>(media.getVolume());
}

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

// A pipe without a writer would hold up the request for ever, so only a regular file counts.
File openRegularFile(const char* path) {
  const int descriptor = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor < 0) return nullptr;
  struct stat status {};
  if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
    if (File file{fdopen(descriptor, "rb")}) return file;
  }
  close(descriptor);
  return nullptr;
}

}  // namespace

void QS_WriteTTSThread::Pending::append(const std::int16_t* from, int samplesToAdd) {
  std::copy_n(from, samplesToAdd, samples.begin() + count);
  count += samplesToAdd;
}

Frame QS_WriteTTSThread::Pending::takeFrame() {
  std::fill(samples.begin() + count, samples.end(), std::int16_t{0});
  count = 0;
  return samples;
}

QS_WriteTTSThread::QS_WriteTTSThread(QS_ControllerBase* owner, SampleQueue& source,
                                     const QS_PlayRequest* played, RequestOutcome& decision)
    : controller(owner), queue(source), request(played), outcome(decision) {}

QS_WriteTTSThread::~QS_WriteTTSThread() {
  QS_MediaInterfaceBase* const media = controller->getMediaIF();
  syslog(LOG_DEBUG, "%s: audPlaybackSession - %d", "~QS_WriteTTSThread",
         media->getMsAudPlaybackSession());
  media->stopMsAudPlaybackSession();
}

bool QS_WriteTTSThread::threadLoop() {
  requestExit();
  QS_MediaInterfaceBase& media = *controller->getMediaIF();
  syslog(LOG_NOTICE, "WriteTTSThread started: playback:%d", media.getMsAudPlaybackSession());
  if (stopped) {
    syslog(LOG_INFO, "WriteTTSThread stopped before handling queue");
    return false;
  }
  media.startMsAudPlaybackSession();
  FrameOutput output(*controller, request->times);
  playQueue(output, gainOf(media));
  if (!stopped && (request->flags & kPlayAlertAfterTexts) != 0) playAlertFile(output);
  if (!stopped) reportPlayed();
  if (stopped) syslog(LOG_DEBUG, "%s: WriteTTSThread stopped", "threadLoop");
  return false;
}

void QS_WriteTTSThread::playQueue(FrameOutput& output, std::int16_t target) {
  Pending pending;
  while (!stopped) {
    std::unique_ptr<QS_StreamData> block;
    bool exhausted = false;
    if (sendSilence) {
      exhausted = queue.removeTimed(block) == TakeResult::exhausted;
    } else {
      block = queue.remove();
      exhausted = block == nullptr;
    }
    if (block != nullptr) {
      playBlock(output, pending, target, *block);
    } else if (!stopped) {
      playGap(output, pending);
    }
    if (exhausted) return;
  }
}

void QS_WriteTTSThread::playBlock(FrameOutput& output, Pending& pending, std::int16_t& target,
                                  const QS_StreamData& block) {
  const std::int16_t* samples = block.samples.get();
  int left = block.count;
  if (left <= 0) {
    syslog(LOG_DEBUG, "%s get 0 data from queue", "threadLoop");
    return;
  }
  if (pending.count + left < kFrameSamples) {
    pending.append(samples, left);
    return;
  }
  if (stopped) return;
  // A stop that comes in the middle of the block lets one more frame out, which fades.
  for (int framesAllowed = 2;;) {
    const int used = kFrameSamples - pending.count;
    pending.append(samples, used);
    output.playRamped(pending.takeFrame(), target);
    samples += used;
    left -= used;
    if (left > 0 && left < kFrameSamples) {
      pending.append(samples, left);
      return;
    }
    if (stopped) {
      target = 0;
      if (--framesAllowed == 0) return;
    }
    if (left == 0) return;
  }
}

void QS_WriteTTSThread::playGap(FrameOutput& output, Pending& pending) {
  if (pending.count > 0) {
    output.playRamped(pending.takeFrame(), 0);
  } else if (sendSilence) {
    output.playSilence();
  }
}

void QS_WriteTTSThread::playAlertFile(FrameOutput& output) {
  QS_MediaInterfaceBase& media = *controller->getMediaIF();
  const std::int16_t gain = gainOf(media);
  if (request->alertFile == nullptr) return;
  const File file = openRegularFile(request->alertFile);
  if (file == nullptr) return;
  if (media.getMsAudPlaybackSession() == 0) media.startMsAudPlaybackSession();
  std::array<std::int16_t, kFrameSamples> frame{};
  while (!stopped && std::feof(file.get()) == 0 && std::ferror(file.get()) == 0) {
    const std::size_t count =
        std::fread(frame.data(), sizeof(std::int16_t), frame.size(), file.get());
    std::fill(frame.begin() + static_cast<std::ptrdiff_t>(count), frame.end(), std::int16_t{0});
    output.playScaled(frame, gain);
  }
}

void QS_WriteTTSThread::reportPlayed() {
  const platform::MutexLock hold(outcome.lock);
  if (outcome.result != RequestOutcome::Result::undecided) return;
  outcome.result = RequestOutcome::Result::played;
  controller->reportPlayRequestResult(request, 0);
}

}  // namespace qs_ns
