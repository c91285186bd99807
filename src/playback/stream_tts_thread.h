#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include <flite/flite.h>

#include "cache/static_phrase_cache.h"
#include "platform/thread.h"
#include "playback/play_request.h"
#include "playback/request_outcome.h"
#include "playback/write_tts_thread.h"

namespace qs_ns {

class QS_CacheThreadBase;
class QS_ControllerBase;
struct DynamicPhraseCache;
struct QS_StreamUserData;

/// The streaming side of one request, as the speech engine's callback and the play queue see it.
class QS_StreamTTSThreadBase {
 public:
  virtual ~QS_StreamTTSThreadBase() = default;

  /// Queues a copy of new samples for the writer: samples[start, start + size), or from 0 where the
  /// text is to be heard from its first sample on and none of it was written yet. Always 0.
  virtual int writeToMS(int start, int size, const std::int16_t* samples, int last) = 0;
  /// Lives as long as this object. Any thread.
  virtual const QS_PlayRequest* getPlayRequest() const = 0;
  /// Ends the request, unless it has its result already. Never blocks. Other threads hold the play
  /// queue's control lock, so that the object lives. Always 0.
  virtual int stopThread() = 0;
  /// Has a stop decided its result? Any thread.
  virtual bool isStopped() const = 0;
  /// Plays the request; returns when its writer has ended. Once per object. Always 0.
  virtual int executeStream() = 0;
};

/// Turns one request into sample blocks for its writer: each text comes from the static cache, the
/// dynamic cache or the speech engine. Runs on the play queue thread, which calls `executeStream`
/// itself; only the writer is a thread of its own.
class QS_StreamTTSThread final : public QS_StreamTTSThreadBase, public platform::Thread {
 public:
  QS_StreamTTSThread(QS_ControllerBase* owner, std::unique_ptr<QS_PlayRequest> toPlay);
  /// Reports result 1 where the request was stopped.
  ~QS_StreamTTSThread() override;

  int writeToMS(int start, int size, const std::int16_t* samples, int last) override;
  const QS_PlayRequest* getPlayRequest() const override { return request.get(); }
  int stopThread() override;
  bool isStopped() const override { return stopped; }
  int executeStream() override;

  static std::unique_ptr<QS_WriteTTSThread> createWriteTTSThread(QS_ControllerBase* owner,
                                                                 SampleQueue& source,
                                                                 const QS_PlayRequest* played,
                                                                 RequestOutcome& decision);

 protected:
  bool threadLoop() override;

 private:
  void startWriter();
  void streamText(const std::string& text, QS_StreamUserData& userData);
  bool writeFromCaches(const std::string& text, QS_CacheThreadBase* cache);
  bool writeFromStaticCache(const std::string& text) REQUIRES(cacheMutex);
  bool writeFromDynamicCache(const std::string& text, QS_CacheThreadBase& cache,
                             DynamicPhraseCache& entry) REQUIRES(cacheMutex);
  void synthesise(const std::string& text, QS_StreamUserData& userData, QS_CacheThreadBase* cache);
  /// Waits until the writer has caught up; non-zero where the request was stopped meanwhile.
  int waitForRoom();

  QS_ControllerBase* const controller;
  std::atomic<bool> stopped{false};
  std::unique_ptr<QS_WriteTTSThread> writer GUARDED_BY(outcome.lock);
  /// Are the next samples written from their text's first one on? So at first, and after each
  /// synthesised text in silence mode. Play queue thread only.
  bool firstChunk = true;
  SampleQueue queue;
  const std::unique_ptr<const QS_PlayRequest> request;
  RequestOutcome outcome;
  /// The same writer, for the play queue thread, which alone creates and destroys it.
  QS_WriteTTSThread* output = nullptr;
};

/// The speech engine's callback of a play request; the owner in its user data is the
/// `QS_StreamTTSThreadBase` to feed. C code lies between it and any handler, so it ends the process
/// where memory runs out, as Flite does.
int audio_stream_chunk(const cst_wave* wave, int start, int size, int last,
                       cst_audio_streaming_info* info) noexcept;

}  // namespace qs_ns
