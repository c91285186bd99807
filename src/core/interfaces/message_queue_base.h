#pragma once

#include <memory>

namespace qs_ns {

struct QS_PlayRequest;

/// The play queue as the controller sees it. Any thread, unless said; nothing here waits for speech
/// but `stopThread`, and most of it takes the queue's control lock for a moment.
class QS_MessageQueueBase {
 public:
  /// Starts the queue's thread; where there is none to be had, that is logged and nothing is ever
  /// played. Once per object; main thread.
  virtual void runThread() = 0;
  /// Stops the request that plays, ends the thread and waits for it. Once per object; main thread.
  virtual void stopThread() = 0;
  /// Interrupts the request that plays or is about to, if `request` displaces it; null always does.
  /// Called with the queue's control lock held.
  virtual void notifyThread(const QS_PlayRequest* request) = 0;
  /// Removes or stops the request with that handle; always 0.
  virtual int stopPlaying(const unsigned long long& handle) = 0;
  /// Queues a request. First the one that plays is asked to stop, if it gives way, and those at the
  /// newest end that give way are dropped; one behind a request that stays is left, and dropped
  /// when its turn comes if it gives way to the last one added. After `stopThread` it is kept and
  /// not played.
  virtual void addToQueue(std::unique_ptr<QS_PlayRequest> request) = 0;

  /// True while a request is examined or played, and until 5 whole seconds after the last one
  /// ended.
  virtual bool isBusy() = 0;
  /// How many requests wait behind the one that plays.
  virtual int requestsWaiting() = 0;

 protected:
  ~QS_MessageQueueBase() = default;
};

}  // namespace qs_ns
