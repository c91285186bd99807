#pragma once

#include <atomic>
#include <memory>
#include <optional>

#include "core/interfaces/message_queue_base.h"
#include "platform/condition.h"
#include "platform/mutex.h"
#include "platform/thread.h"
#include "playback/play_request.h"
#include "playback/stream_tts_thread.h"

namespace qs_ns {

class QS_ControllerBase;

/// One voice, one request at a time: queues the requests, decides by precedence which of them a
/// newer one displaces, and plays the oldest on its own thread.
///
/// A request is in one of four places: queued, taken (unlinked, but its streaming object is still
/// being made), current, or gone. Each step from one place to the next is made in one hold of
/// `control`, so whoever holds it finds every request in exactly one place, and a stop finds it in
/// each of them.
class QS_MessageQueueThread final : public QS_MessageQueueBase, public platform::Thread {
 public:
  QS_MessageQueueThread() = default;
  /// The thread has been stopped before; requests still queued are dropped without a report.
  ~QS_MessageQueueThread() override = default;

  /// Before `runThread`. Not owned.
  void setController(QS_ControllerBase* owner) { controller = owner; }

  void runThread() override;
  void stopThread() override;
  void notifyThread(const QS_PlayRequest* request) override REQUIRES(control);
  int stopPlaying(const unsigned long long& wanted) override;
  void addToQueue(std::unique_ptr<QS_PlayRequest> request) override;
  bool isBusy() override;
  int requestsWaiting() override;

  using PlayQueue = wqueue<std::unique_ptr<QS_PlayRequest>>;
  PlayQueue& getPlayQueue() { return playQueue; }

  static std::unique_ptr<QS_StreamTTSThread> createStreamTTSThread(
      QS_ControllerBase* owner, std::unique_ptr<QS_PlayRequest> request);

 protected:
  bool threadLoop() override;

 private:
  /// A request that was unlinked but has no streaming object to carry a stop yet.
  struct TakenRequest {
    const QS_PlayRequest* request;
    /// Has a stop, a newer request or the tear-down come for it meanwhile?
    bool stopNoted;
  };

  std::unique_ptr<QS_PlayRequest> take();
  void play(std::unique_ptr<QS_PlayRequest> request);
  void dropTaken();
  QS_StreamTTSThread& makeCurrent(std::unique_ptr<QS_PlayRequest> request);
  void endCurrent();

  QS_ControllerBase* controller = nullptr;
  std::atomic<bool> stopped{false};
  /// Is a request being examined or played?
  bool busy GUARDED_BY(control) = false;
  std::unique_ptr<QS_StreamTTSThread> current GUARDED_BY(control);
  /// Taken before the queue's lock and a request's outcome lock.
  platform::Mutex control{true};
  PlayQueue playQueue;
  /// The request added last, until a request is taken. Not owned; one that leaves the queue by
  /// another way is cleared from here.
  const QS_PlayRequest* justAdded GUARDED_BY(control) = nullptr;
  /// When the last request ended; none where none was ever played.
  std::optional<platform::MonotonicTime> lastPlayTime GUARDED_BY(control);
  std::optional<TakenRequest> taken GUARDED_BY(control);
};

}  // namespace qs_ns
