#include "playback/message_queue_thread.h"

#include <syslog.h>

#include <chrono>
#include <cstring>
#include <utility>

#include "core/interfaces/controller_base.h"
#include "core/interfaces/media_interface_base.h"
#include "platform/clock.h"
#include "playback/precedence.h"

namespace qs_ns {

namespace {

// For so many whole seconds after a request the queue still counts as busy: speech comes in bursts,
// and the cache builder would get in its way.
constexpr std::chrono::seconds kBusyAfterPlay{5};

int firstTextLength(const QS_PlayRequest& request) {
  return request.textToConvert.empty() ? 0 : static_cast<int>(request.textToConvert[0].size());
}

}  // namespace

void QS_MessageQueueThread::runThread() {
  const int status = run("QS_MessageQueueThread", 0, 0);
  if (status != 0) {
    syslog(LOG_ERR, "QS_MessageQueueThread: nothing will be played, no thread: %s",
           std::strerror(-status));
  }
}

void QS_MessageQueueThread::addToQueue(std::unique_ptr<QS_PlayRequest> request) {
  const platform::MutexLock hold(control);
  notifyThread(request.get());
  // Never one that is gone, should memory run out below.
  justAdded = nullptr;
  // Only the newest end: an older request behind one that stays was there first.
  while (playQueue.removeLastIf([&request](const QS_PlayRequest& queued) {
    return givesWay(queued.flags, request->flags);
  })) {
  }
  const QS_PlayRequest* const added = request.get();
  playQueue.add(std::move(request));
  justAdded = added;
}

void QS_MessageQueueThread::notifyThread(const QS_PlayRequest* request) {
  const auto displaced = [request](const QS_PlayRequest& playing) {
    return request == nullptr || givesWay(playing.flags, request->flags);
  };
  if (current != nullptr) {
    if (displaced(*current->getPlayRequest())) current->stopThread();
  } else if (taken.has_value()) {
    if (displaced(*taken->request)) taken->stopNoted = true;
  }
}

int QS_MessageQueueThread::stopPlaying(const unsigned long long& wanted) {
  const platform::MutexLock hold(control);
  const std::unique_ptr<QS_PlayRequest> queued = playQueue.removeFirst(
      [wanted](const QS_PlayRequest& request) { return request.handle == wanted; });
  if (queued != nullptr) {
    if (justAdded == queued.get()) justAdded = nullptr;
    syslog(LOG_DEBUG, "%s: Found %lu in queue. But deleting the request", "stopPlaying",
           static_cast<unsigned long>(wanted));
  } else if (current != nullptr) {
    if (current->getPlayRequest()->handle == wanted) current->stopThread();
  } else if (taken.has_value()) {
    if (taken->request->handle == wanted) taken->stopNoted = true;
  }
  return 0;
}

void QS_MessageQueueThread::stopThread() {
  if (stopped.exchange(true)) return;
  syslog(LOG_WARNING, "%s: Marking play_queue exhausted", "stopThread");
  playQueue.markExhausted();
  requestExit();
  {
    const platform::MutexLock hold(control);
    syslog(LOG_WARNING, "%s: Notifying any streamTTSThread if any to stop", "stopThread");
    notifyThread(nullptr);
  }
  join();
}

bool QS_MessageQueueThread::isBusy() {
  const platform::MutexLock hold(control);
  if (busy) return true;
  if (!lastPlayTime.has_value()) return false;
  const auto elapsed = platform::clock().now() - *lastPlayTime;
  return std::chrono::floor<std::chrono::seconds>(elapsed) < kBusyAfterPlay;
}

int QS_MessageQueueThread::requestsWaiting() {
  return playQueue.size();
}

std::unique_ptr<QS_StreamTTSThread> QS_MessageQueueThread::createStreamTTSThread(
    QS_ControllerBase* owner, std::unique_ptr<QS_PlayRequest> request) {
  return std::make_unique<QS_StreamTTSThread>(owner, std::move(request));
}

bool QS_MessageQueueThread::threadLoop() {
  if (stopped) return false;
  if (!playQueue.waitForItem()) {
    syslog(LOG_ERR, "QS_MessageQueueThread: Queue could not be read.");
    syslog(LOG_WARNING, "QS_MessageQueueThread: Queue is marked as exhausted. Terminating thread");
    return false;
  }
  if (std::unique_ptr<QS_PlayRequest> request = take()) play(std::move(request));
  return true;
}

// With control held, so that a request is never in nobody's hands; it may have gone since the queue
// was found to hold one.
std::unique_ptr<QS_PlayRequest> QS_MessageQueueThread::take() {
  const platform::MutexLock hold(control);
  if (stopped) return nullptr;
  std::unique_ptr<QS_PlayRequest> request = playQueue.tryRemove();
  if (request == nullptr) return nullptr;
  const QS_PlayRequest* const newest = std::exchange(justAdded, nullptr);
  if (newest != nullptr && newest != request.get() && givesWay(request->flags, newest->flags)) {
    syslog(LOG_INFO, "just_added found to be higher precedence. Need to stop processing further");
    return nullptr;
  }
  busy = true;
  taken = TakenRequest{request.get(), false};
  return request;
}

void QS_MessageQueueThread::play(std::unique_ptr<QS_PlayRequest> request) {
  syslog(LOG_DEBUG, "QS_MessageQueueThread: Request handled for text with length:%d",
         firstTextLength(*request));
  request->times.note(Stage::taken);
  if (controller->startMsAudPlayback() != 0) {
    syslog(LOG_ERR, "QS_MessageQueueThread: Error in startMsRTPSession()");
    dropTaken();
    return;
  }
  request->times.note(Stage::sessionOpened);
  makeCurrent(std::move(request)).executeStream();
  syslog(LOG_DEBUG, "QS_MessageQueueThread: Call stopMsAudPlaybackSession()");
  controller->getMediaIF()->stopMsAudPlaybackSession();
  endCurrent();
  controller->restartCaching(false);
}

void QS_MessageQueueThread::dropTaken() {
  const platform::MutexLock hold(control);
  taken.reset();
  busy = false;
}

QS_StreamTTSThread& QS_MessageQueueThread::makeCurrent(std::unique_ptr<QS_PlayRequest> request) {
  const platform::MutexLock hold(control);
  current = createStreamTTSThread(controller, std::move(request));
  if (taken->stopNoted) current->stopThread();
  taken.reset();
  return *current;
}

// Control is held while the object reports a stopped request: the report only posts.
void QS_MessageQueueThread::endCurrent() {
  const platform::MutexLock hold(control);
  current.reset();
  busy = false;
  lastPlayTime = platform::clock().now();
}

}  // namespace qs_ns
