#pragma once

#include <memory>

struct pfir_upFilterState;

namespace qs_ns {

class QS_CacheThreadBase;
class QS_MediaInterfaceBase;
struct QS_PlayRequest;

/// How the workers reach the rest of the daemon. Called from several threads at once: the play
/// queue thread, the writer, the cache builder and the main thread.
class QS_ControllerBase {
 public:
  /// Never null while the service runs.
  virtual QS_MediaInterfaceBase* getMediaIF() = 0;
  /// The current builder or null. Takes the controller's cache mutex: call it with no lock held,
  /// once for each use, and drop the pointer with no lock held.
  virtual std::shared_ptr<QS_CacheThreadBase> getCacheThread() = 0;
  /// The factor-3 filter state, for the one writer that exists at a time; null after the clean-up
  /// and where there was no memory for it.
  virtual pfir_upFilterState* getFirUpState() = 0;
  /// Notes a state, which nobody asks for.
  virtual void setState(int state) = 0;
  /// Reports a finished request: 0 played to its end, 1 stopped. Never blocks on the bus, so it may
  /// be called with a lock held. The record is neither changed nor freed.
  virtual void reportPlayRequestResult(const QS_PlayRequest* request, int result) = 0;
  /// May texts be taken from the static phrase cache?
  virtual bool isCacheEnabled() = 0;
  /// Opens the playback session if none is open, with three attempts, each followed by 50 ms: 0, or
  /// -10. A device that hangs adds about a second. Play queue thread.
  virtual int startMsAudPlayback() = 0;
  /// From a builder's destructor; `builder` is the one that ends.
  virtual void reportCachingComplete(const QS_CacheThreadBase* builder) = 0;
  /// True while a request plays and for 5 s after.
  virtual bool isMessageQueueBusy() = 0;
  /// Stops the builder and starts a new one, both caches empty; without `force` only where none was
  /// started. Nothing where caching is turned off. Does not wait for the old one.
  virtual void restartCaching(bool force) = 0;
  virtual ~QS_ControllerBase() = default;
};

}  // namespace qs_ns
