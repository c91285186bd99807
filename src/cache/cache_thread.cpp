#include "cache/cache_thread.h"

#include <syslog.h>

#include <cstddef>
#include <utility>

#include "cache/builder_line.h"
#include "cache/dynamic_phrase_cache.h"
#include "cache/phrase_list.h"
#include "cache/phrase_samples.h"
#include "cache/static_phrase_cache.h"
#include "core/interfaces/controller_base.h"
#include "platform/clock.h"
#include "platform/heap.h"
#include "tts/speech_engine.h"

namespace qs_ns {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// With the feature off, only the phrases from 40 to 41 ("8" and "9") are built.
constexpr int kLastIndexBeforeShortSet = 39;
constexpr int kLastIndexOfShortSet = 41;

constexpr seconds kBusyWait{5};
constexpr seconds kNoWaveWait{10};
// After giving way: long enough for the request that wanted it to make the queue busy.
constexpr milliseconds kGaveWayWait{200};

bool reportStop() {
  syslog(LOG_WARNING, "QS_CT:%s: Detect CacheThread stopped. Terminating", "createCacheEntry");
  return false;
}

int phrasesInCache() {
  const platform::MutexLock lock(cacheMutex);
  return static_cache::size();
}

}  // namespace

int cache_audio_stream_chunk(const cst_wave* wave, int /*start*/, int /*size*/, int last,
                             cst_audio_streaming_info* info) {
  constexpr const char* kName = "cache_audio_stream_chunk";
  if (last != 0) {
    syslog(LOG_DEBUG, "%s:,Finished TTS stream. Total samples:%d", kName, wave->num_samples);
  }
  const auto& userData = *static_cast<const QS_StreamUserData*>(info->userdata);
  if (!static_cast<QS_CacheThread*>(userData.owner)->givesUpChunk()) {
    return CST_AUDIO_STREAM_CONT;
  }
  syslog(LOG_WARNING, "%s:Stopping flite stream process", kName);
  return CST_AUDIO_STREAM_STOP;
}

QS_CacheThread::QS_CacheThread(QS_ControllerBase* owner, bool featureIsOff, BuilderLine& turns)
    : controller(owner),
      lastIndex(featureIsOff ? kLastIndexBeforeShortSet : -1),
      featureOff(featureIsOff),
      line(turns) {
  PhraseMap outdated;
  {
    const platform::MutexLock lock(cacheMutex);
    outdated = static_cache::clear();
  }
  speed = qs_fetch_speed(nullptr);
}

QS_CacheThread::~QS_CacheThread() {
  controller->reportCachingComplete(this);
}

int QS_CacheThread::runThread() {
  return line.start(shared_from_this());
}

int QS_CacheThread::stopThread() {
  {
    const platform::MutexLock lock(restMutex);
    if (stopped) return 0;
    syslog(LOG_NOTICE, "QS_CT:%s: STOP requested", "stopThread");
    stopped = true;
    requestExit();
    stopAsked.notifyAll();
  }
  voiceMutex.wake();
  return 0;
}

void QS_CacheThread::pauseThread() {
  syslog(LOG_NOTICE, "QS_CT:%s: PAUSE requested", "pauseThread");
  paused = true;
}

bool QS_CacheThread::threadLoop() {
  if (!hasTurn) line.takeTurn(*this);
  hasTurn = true;
  if (!stopped && controller->isMessageQueueBusy()) {
    syslog(LOG_WARNING, "QS_CT:%s: Message queue is busy. Waiting 5 seconds", "threadLoop");
    rest(kBusyWait);
    return true;
  }
  const bool goesOn = createCacheEntry(lastIndex + 1);
  const int lastOfSet = featureOff ? kLastIndexOfShortSet : kPhraseCount - 1;
  if (goesOn && lastIndex < lastOfSet) return true;

  syslog(LOG_INFO, "QS_CT:%s: Number of phrases in cache:%d", "threadLoop", phrasesInCache());
  // While something sounds that is left to the sound device, which does it when all is quiet.
  if (!stopped && !controller->isMessageQueueBusy()) platform::trimHeap();
  requestExit();
  return false;
}

bool QS_CacheThread::createCacheEntry(int index) {
  if (index >= kPhraseCount) return false;
  const char* const text = cachePhraseList[static_cast<std::size_t>(index)];
  syslog(LOG_DEBUG, "QS_CT:%s: Phrase from list - %s", "createCacheEntry", text);
  Wave wave = synthesise(text);
  if (stopped) return reportStop();
  const milliseconds delay = delayBeforeRetry(wave.get(), text);
  if (delay == milliseconds::zero()) return storePhrase(text, *wave) || reportStop();
  wave.reset();
  rest(delay);
  return true;
}

Wave QS_CacheThread::synthesise(const char* text) {
  gaveWay = false;
  // No waiting for the voice behind a long text, only to give it back.
  if (stopped) return nullptr;
  QS_StreamUserData userData;
  userData.owner = this;
  userData.speed = speed;
  userData.background = true;
  userData.abandoned = [](const QS_StreamUserData& data) {
    return static_cast<QS_CacheThread*>(data.owner)->givesUpSynthesis();
  };
  return qs_flite_tts_stream(text, cache_audio_stream_chunk, &userData, true);
}

bool QS_CacheThread::givesUpSynthesis() {
  // Taken here, so that one that comes later is not forgotten together with it.
  if (paused.exchange(false)) gaveWay = true;
  return gaveWay || stopped;
}

bool QS_CacheThread::givesUpChunk() {
  if (voiceMutex.isWantedBySpeech()) gaveWay = true;
  return givesUpSynthesis();
}

milliseconds QS_CacheThread::delayBeforeRetry(const cst_wave* wave, const char* text) {
  if (controller->isMessageQueueBusy()) {
    keepPause();
    syslog(LOG_WARNING, "QS_CT:%s: Aborted cache and MessageQueue busy. Wait 5 seconds",
           "createCacheEntry");
    return kBusyWait;
  }
  if (!isEmpty(wave)) {
    // Noticed in the last chunk, it has stopped nothing.
    keepPause();
    return milliseconds::zero();
  }
  if (gaveWay) return kGaveWayWait;
  syslog(LOG_WARNING, "QS_CT:%s: wav_out=NULL - %s. Wait 10 seconds", "createCacheEntry", text);
  return kNoWaveWait;
}

void QS_CacheThread::keepPause() {
  if (gaveWay) paused = true;
}

bool QS_CacheThread::storePhrase(const std::string& text, const cst_wave& wave) {
  PhraseSamples sound = copySamples(wave);
  const void* const address = sound.samples.get();
  const int count = sound.count;
  PhraseSamples replaced;
  {
    const platform::MutexLock lock(cacheMutex);
    // Here and not before: the next builder's constructor empties the cache once this one is
    // stopped, and no old phrase may come in after that.
    if (stopped) return false;
    replaced = static_cache::store(text, std::move(sound));
  }
  if (replaced.count != 0) {
    syslog(LOG_DEBUG, "QS_CT:%s: Text match found - length=%d", "createCacheEntry",
           static_cast<int>(text.size()));
  }
  syslog(LOG_DEBUG, "QS_CT:%s: Phrase buffer ptr - %p buffer size - %d", "createCacheEntry",
         address, count);
  ++lastIndex;
  return true;
}

void QS_CacheThread::rest(std::chrono::nanoseconds duration) {
  const platform::MonotonicTime end = platform::clock().now() + duration;
  const platform::MutexLock lock(restMutex);
  while (!stopped && platform::clock().waitUntil(stopAsked, restMutex, end)) {
  }
}

bool QS_CacheThread::addDynamicCacheEntry(std::string text, Wave wave) {
  return dynamic_cache::add(std::move(text), wave, stopped);
}

bool QS_CacheThread::refreshDynamicCacheText(std::string text,
                                             std::shared_ptr<const std::int16_t[]> samples,
                                             int count) {
  return dynamic_cache::refresh(std::move(text), std::move(samples), count);
}

bool QS_CacheThread::isInDynamicCache(std::string text) {
  return dynamic_cache::contains(text);
}

DynamicPhraseCache QS_CacheThread::getDynamicCache(std::string text) {
  return dynamic_cache::get(text);
}

int QS_CacheThread::getDynamicPhraseCacheSize() {
  return dynamic_cache::size();
}

void QS_CacheThread::clearDynamicPhraseCache() {
  dynamic_cache::clear();
}

}  // namespace qs_ns
