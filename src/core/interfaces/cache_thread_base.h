#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "tts/wave.h"

namespace qs_ns {

/// One text that was spoken lately, with its sound as synthesised (mono, signed 16-bit, the voice's
/// rate). Copies share the samples, which live as long as the last copy.
struct DynamicPhraseCache {
  std::string text;
  std::shared_ptr<const std::int16_t[]> samples;
  int count = 0;
};

/// The builder of the static phrase cache, and the way to the dynamic one. Held by counted
/// pointers: its owner and whoever looks a text up. Nobody drops the last one with a lock held,
/// since the destructor reports to the controller. Any thread may call any of these; none blocks
/// for long.
class QS_CacheThreadBase {
 public:
  virtual ~QS_CacheThreadBase() = default;

  /// Asks the builder to end and to take no more additions; does not wait. Always 0.
  virtual int stopThread() = 0;
  /// Was it asked to end?
  virtual bool isStopped() const = 0;
  /// Makes the synthesis under way, else the next one, give the voice back at its next chunk, once.
  virtual void pauseThread() = 0;
  /// Is that still to happen?
  virtual bool isPaused() const = 0;
  /// Starts the builder's thread, or queues it behind one that is still ending. 0, or the negative
  /// errno value where there is no thread (-ECANCELED after the clean-up).
  virtual int runThread() = 0;

  /// Keeps a copy of the wave's samples as the newest text. False where it was refused: an empty
  /// text or wave, more than 15 s of sound, or a builder that was asked to end.
  virtual bool addDynamicCacheEntry(std::string text, Wave wave) = 0;
  /// Makes the text the newest again. False where it was refused, or has left the cache meanwhile,
  /// where it stays out: the samples may be from before a reload.
  virtual bool refreshDynamicCacheText(std::string text,
                                       std::shared_ptr<const std::int16_t[]> samples,
                                       int count) = 0;
  virtual bool isInDynamicCache(std::string text) = 0;
  /// The record of the text, or an empty one (no samples, count 0).
  virtual DynamicPhraseCache getDynamicCache(std::string text) = 0;
  /// How many texts it holds.
  virtual int getDynamicPhraseCacheSize() = 0;
  /// Forgets them all.
  virtual void clearDynamicPhraseCache() = 0;
};

}  // namespace qs_ns
