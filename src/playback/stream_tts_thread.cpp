#include "playback/stream_tts_thread.h"

#include <syslog.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "core/interfaces/cache_thread_base.h"
#include "core/interfaces/controller_base.h"
#include "core/interfaces/media_interface_base.h"
#include "tts/speech_engine.h"

namespace qs_ns {

namespace {

// Flite's smallest buffer. A text's first chunk is never written alone: it goes out with the
// second, or, in a later text without silence mode, not at all. It is near silence.
constexpr int kMinChunkSamples = 320;

// More sound than this need not be ready ahead; without a limit, long texts pile up in memory.
constexpr std::int64_t kMaxWaitingSamples = std::int64_t{20} * kSpeechRate;

QS_StreamTTSThreadBase& ownerOf(const QS_StreamUserData& userData) {
  return *static_cast<QS_StreamTTSThreadBase*>(userData.owner);
}

int logStopped() {
  syslog(LOG_WARNING, "Stopping flite stream process");
  return CST_AUDIO_STREAM_STOP;
}

}  // namespace

int audio_stream_chunk(const cst_wave* wave, int start, int size, int last,
                       cst_audio_streaming_info* info) noexcept {
  QS_StreamTTSThreadBase& stream = ownerOf(*static_cast<QS_StreamUserData*>(info->userdata));
  if (stream.isStopped()) return logStopped();
  if (start < kMinChunkSamples && last == 0) return CST_AUDIO_STREAM_CONT;
  if (stream.writeToMS(start, size, wave->samples, last) != 0 || stream.isStopped()) {
    return logStopped();
  }
  return CST_AUDIO_STREAM_CONT;
}

QS_StreamTTSThread::QS_StreamTTSThread(QS_ControllerBase* owner,
                                       std::unique_ptr<QS_PlayRequest> toPlay)
    : controller(owner), request(std::move(toPlay)) {}

QS_StreamTTSThread::~QS_StreamTTSThread() {
  syslog(LOG_DEBUG, "%s: QS_StreamTTSThread Destructor", "~QS_StreamTTSThread");
  std::unique_ptr<QS_WriteTTSThread> ended;
  {
    const platform::MutexLock hold(outcome.lock);
    ended = std::move(writer);
  }
  ended.reset();
  if (stopped) controller->reportPlayRequestResult(request.get(), 1);
  request->times.log(request->handle);
}

std::unique_ptr<QS_WriteTTSThread> QS_StreamTTSThread::createWriteTTSThread(
    QS_ControllerBase* owner, SampleQueue& source, const QS_PlayRequest* played,
    RequestOutcome& decision) {
  return std::make_unique<QS_WriteTTSThread>(owner, source, played, decision);
}

int QS_StreamTTSThread::stopThread() {
  {
    const platform::MutexLock hold(outcome.lock);
    if (outcome.result != RequestOutcome::Result::undecided) return 0;
    outcome.result = RequestOutcome::Result::stopped;
    syslog(LOG_NOTICE, "QS_ST::%s: Received new command, stop the current thread", "stopThread");
    // What waits in the device would go on for longer than all the rest of a stop takes. First, for
    // the session is still there; it only leaves a note.
    controller->getMediaIF()->dropMsAudPlaybackSession();
    if (writer != nullptr) writer->stop();
    stopped = true;
  }
  queue.wake();
  voiceMutex.wake();
  return 0;
}

int QS_StreamTTSThread::executeStream() {
  if (stopped) {
    syslog(LOG_NOTICE,
           "%s: Received new command, stop the current thread - Don't call QS_WriteTTSThread()",
           "executeStream");
    return 0;
  }
  QS_StreamUserData userData;
  userData.owner = static_cast<QS_StreamTTSThreadBase*>(this);
  userData.speed = request->params & kSpeedMask;
  userData.voice = (request->params >> kVoiceShift) & 1;
  userData.beforePiece = [](QS_StreamUserData& data) {
    return static_cast<QS_StreamTTSThread&>(ownerOf(data)).waitForRoom();
  };
  userData.abandoned = [](const QS_StreamUserData& data) { return ownerOf(data).isStopped(); };
  userData.waitsBeforePiece = [](const QS_StreamUserData& data) {
    return !static_cast<QS_StreamTTSThread&>(ownerOf(data)).queue.hasRoom(kMaxWaitingSamples);
  };
  controller->setState(1);
  startWriter();
  for (const std::string& text : request->textToConvert) {
    if (stopped) {
      syslog(LOG_WARNING, "%s: Streamthread stopped - Not calling qs_flite_tts_stream()",
             "executeStream");
      break;
    }
    if (text.empty()) {
      syslog(LOG_WARNING, "%s: Streamthread input empty skipping this entry", "executeStream");
      continue;
    }
    streamText(text, userData);
  }
  queue.markExhausted();
  syslog(LOG_DEBUG, "%s: Call qs_writeTTSThread->join()", "executeStream");
  output->join();
  return 0;
}

bool QS_StreamTTSThread::threadLoop() {
  syslog(LOG_NOTICE, "QS_StreamTTSThread: threadloop started");
  const int result = executeStream();
  requestExit();
  return result != 0;
}

void QS_StreamTTSThread::startWriter() {
  {
    const platform::MutexLock hold(outcome.lock);
    writer = createWriteTTSThread(controller, queue, request.get(), outcome);
    output = writer.get();
    // A stop may have come since the request was found running.
    if (stopped) output->stop();
  }
  if (const int status = output->start(); status != 0) {
    syslog(LOG_ERR, "%s: no thread for the writer, the request counts as stopped: %s",
           "executeStream", std::strerror(-status));
    stopThread();
  }
}

void QS_StreamTTSThread::streamText(const std::string& text, QS_StreamUserData& userData) {
  if (waitForRoom() != 0) return;
  // One builder for the whole text: what was looked up before a reload is not added after it.
  const std::shared_ptr<QS_CacheThreadBase> cache = controller->getCacheThread();
  if (!writeFromCaches(text, cache.get())) synthesise(text, userData, cache.get());
}

bool QS_StreamTTSThread::writeFromCaches(const std::string& text, QS_CacheThreadBase* cache) {
  // Outlives the lock, since a reload may make it the last holder of the samples.
  DynamicPhraseCache entry;
  const platform::MutexLock hold(cacheMutex);
  return (controller->isCacheEnabled() && writeFromStaticCache(text)) ||
         (cache != nullptr && writeFromDynamicCache(text, *cache, entry));
}

bool QS_StreamTTSThread::writeFromStaticCache(const std::string& text) {
  const PhraseSamples found = static_cache::find(text);
  if (found.count == 0) return false;
  syslog(LOG_DEBUG, "%s: Text match found - length=%d text=%s", "executeStream",
         static_cast<int>(text.size()), text.c_str());
  writeToMS(0, found.count, found.samples.get(), 1);
  return true;
}

bool QS_StreamTTSThread::writeFromDynamicCache(const std::string& text, QS_CacheThreadBase& cache,
                                               DynamicPhraseCache& entry) {
  if (!cache.isInDynamicCache(text)) return false;
  syslog(LOG_DEBUG, "%s: Dynamic text match found - text length=%d text=%s", "executeStream",
         static_cast<int>(text.size()), text.c_str());
  entry = cache.getDynamicCache(text);
  // A reload may have emptied the cache between the two.
  if (entry.samples == nullptr || entry.count == 0) return false;
  writeToMS(0, entry.count, entry.samples.get(), 1);
  cache.refreshDynamicCacheText(text, entry.samples, entry.count);
  return true;
}

void QS_StreamTTSThread::synthesise(const std::string& text, QS_StreamUserData& userData,
                                    QS_CacheThreadBase* cache) {
  Wave wave = qs_flite_tts_stream(text.c_str(), audio_stream_chunk, &userData, true);
  if ((request->flags & kSilenceBetweenTexts) != 0) {
    firstChunk = true;
    syslog(LOG_DEBUG,
           "%s: Marking WriteTTSThread to send silence while waiting for next phrase buffer",
           "executeStream");
    output->setSendSilence(true);
  }
  if (stopped) return;
  syslog(LOG_DEBUG, "%s: Adding dynamic text - text length=%d", "executeStream",
         static_cast<int>(text.size()));
  if (cache != nullptr) cache->addDynamicCacheEntry(text, std::move(wave));
}

int QS_StreamTTSThread::writeToMS(int start, int size, const std::int16_t* samples, int /*last*/) {
  int from = start;
  if (firstChunk) {
    output->setSendSilence(false);
    from = 0;
    firstChunk = false;
  }
  const int count = start + size - from;
  request->times.note(Stage::firstSamples);
  auto block = std::make_unique<QS_StreamData>();
  block->samples = std::make_unique_for_overwrite<std::int16_t[]>(static_cast<std::size_t>(count));
  block->count = count;
  std::copy_n(samples + from, count, block->samples.get());
  queue.add(std::move(block), count);
  return 0;
}

int QS_StreamTTSThread::waitForRoom() {
  queue.waitForRoom(kMaxWaitingSamples, stopped);
  return stopped ? -1 : 0;
}

}  // namespace qs_ns
