#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cache/builder_line.h"
#include "core/interfaces/cache_thread_base.h"
#include "core/interfaces/controller_base.h"
#include "core/interfaces/dbus_base.h"
#include "core/interfaces/media_interface_base.h"
#include "core/interfaces/message_queue_base.h"
#include "dsp/pfir.h"
#include "platform/mutex.h"

namespace qs_ns {

/// The hub: turns bus calls into play requests, owns the phrase cache builders and the filter
/// state, and is what the workers know of the rest of the daemon. Made and destroyed on the main
/// thread, which also calls the bus operations; the operations of `QS_ControllerBase` come from any
/// thread.
class QS_Controller final : public QS_ControllerBase {
 public:
  /// Borrows all three, which outlive it. Connects to the media server (three attempts 5 s apart,
  /// so it may take 15 s, and goes on without) and starts the phrase cache builder.
  QS_Controller(QS_DBusBase* dbus, QS_MessageQueueBase* queue, QS_MediaInterfaceBase* media);
  ~QS_Controller() override;

  /// Ends the queue and the builders, joins them and frees the filter. Harmless when repeated.
  void cleanupController();

  /// Queues a request and returns its handle, also where there is no queue any more.
  std::uint64_t playMediaFromText(const std::vector<std::string>& texts, const int& params,
                                  const int& type, const int& flags);
  /// Stops or drops the request with that handle; says nothing where there is none. 0.
  int stopMediaPlaying(const std::uint64_t& handle, const int& type, const int& flags);
  /// An odd `flags` makes the process give up its bus name where a test set-up may take it; an even
  /// one starts caching anew, where it is not turned off.
  void reloadConfig(const int& flags);
  /// Sets the volume level (2 is the level at start), from the next request on.
  void setVolume(int volume);
  /// How many requests wait behind the one that plays.
  int requestsWaiting() const;

  QS_MediaInterfaceBase* getMediaIF() override { return mMediaIF; }
  std::shared_ptr<QS_CacheThreadBase> getCacheThread() override;
  pfir_upFilterState* getFirUpState() override { return mFirUpState.get(); }
  void setState(int state) override { mState = state; }
  void reportPlayRequestResult(const QS_PlayRequest* request, int result) override;
  bool isCacheEnabled() override { return mCacheEnabled; }
  int startMsAudPlayback() override;
  void reportCachingComplete(const QS_CacheThreadBase* builder) override;
  bool isMessageQueueBusy() override;
  void restartCaching(bool force) override;

 private:
  struct ReleaseFilter {
    void operator()(pfir_upFilterState* state) const;
  };

  int initializeMSWithController();
  std::shared_ptr<QS_CacheThreadBase> createCacheThread(QS_ControllerBase* controller,
                                                        bool featureOff);

  QS_DBusBase* const mDBus;
  /// Null after the clean-up; the queue itself outlives every thread that reads it here.
  std::atomic<QS_MessageQueueBase*> mThread;
  QS_MediaInterfaceBase* const mMediaIF;
  std::shared_ptr<QS_CacheThreadBase> mCacheThread GUARDED_BY(mCacheMutex);
  std::atomic<int> mState{0};
  bool mCacheEnabled = false;
  /// The outermost of the cache's locks.
  platform::Mutex mCacheMutex{true};
  std::atomic<bool> mCachingStarted{false};
  std::unique_ptr<pfir_upFilterState, ReleaseFilter> mFirUpState;
  BuilderLine mBuilders;
};

}  // namespace qs_ns
