#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include <flite/flite.h>

#include "core/interfaces/cache_thread_base.h"
#include "platform/condition.h"
#include "platform/mutex.h"
#include "platform/thread.h"

namespace qs_ns {

class BuilderLine;
class QS_ControllerBase;

/// The static phrase cache's builder: a background thread that synthesises the phrases of the list
/// one by one, in order, and gets out of the way of real speech. It ends when the list is done or
/// it is stopped, and is not started again; the object then still leads to the dynamic cache.
///
/// Created by the controller as a `shared_ptr`; its thread is started, joined and kept alive by the
/// controller's `BuilderLine`. Controller and line outlive it.
class QS_CacheThread : public QS_CacheThreadBase,
                       public platform::Thread,
                       public std::enable_shared_from_this<QS_CacheThread> {
 public:
  /// Empties the static cache, for which it takes `cacheMutex`, and reads the configured speed from
  /// the property store. With `featureOff` only a short set of phrases is built. The builder before
  /// it has to be stopped, or its phrases come in again.
  QS_CacheThread(QS_ControllerBase* owner, bool featureIsOff, BuilderLine& turns);
  /// Reports to the controller, which may take its locks.
  ~QS_CacheThread() override;

  int stopThread() override;
  bool isStopped() const override { return stopped; }
  void pauseThread() override;
  bool isPaused() const override { return paused; }
  int runThread() override;

  bool addDynamicCacheEntry(std::string text, Wave wave) override;
  bool refreshDynamicCacheText(std::string text, std::shared_ptr<const std::int16_t[]> samples,
                               int count) override;
  bool isInDynamicCache(std::string text) override;
  DynamicPhraseCache getDynamicCache(std::string text) override;
  int getDynamicPhraseCacheSize() override;
  void clearDynamicPhraseCache() override;

  /// One step on the builder's own thread: synthesises the phrase at `index` (0 or more) and stores
  /// it, or waits, for the same phrase to be tried again. False where the builder is to end, at a
  /// stop and behind the list.
  bool createCacheEntry(int index);

  /// Asked on the builder's own thread, before a synthesis and at each of its chunks: is it to be
  /// given up? Remembers whether for a pause, or, at a chunk, for speech that waits.
  bool givesUpSynthesis();
  bool givesUpChunk();

 protected:
  bool threadLoop() override;

 private:
  Wave synthesise(const char* text);
  /// How long to wait before the phrase is tried again; 0 where the wave is to be kept.
  std::chrono::milliseconds delayBeforeRetry(const cst_wave* wave, const char* text);
  /// Leaves the pause that was taken for the next synthesis.
  void keepPause();
  /// False where the builder was stopped before the phrase was in the cache.
  bool storePhrase(const std::string& text, const cst_wave& wave);
  /// Waits on the builder's own thread; a stop ends it.
  void rest(std::chrono::nanoseconds duration);

  QS_ControllerBase* const controller;
  std::atomic<bool> stopped{false};
  /// Place in the list of the last phrase stored. Builder's own thread only.
  int lastIndex;
  std::atomic<bool> paused{false};
  /// Level 1 to 5, constant once the builder runs.
  int speed = 0;
  const bool featureOff;
  BuilderLine& line;
  /// Was the last synthesis given up for a pause? Builder's own thread only.
  bool gaveWay = false;
  /// Has the builder before this one ended? Builder's own thread only.
  bool hasTurn = false;
  /// A stop is set under it, so that none slips in between a look at the flag and the wait.
  platform::Mutex restMutex{true};
  platform::Condition stopAsked;
};

/// The speech engine's callback of a builder: lets the synthesis go on (0) until the builder is
/// paused or stopped (-1). The samples are not looked at; the builder takes the whole wave.
int cache_audio_stream_chunk(const cst_wave* wave, int start, int size, int last,
                             cst_audio_streaming_info* info);

}  // namespace qs_ns
