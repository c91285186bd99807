#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "core/interfaces/cache_thread_base.h"
#include "platform/mutex.h"
#include "tts/wave.h"

namespace qs_ns {

/// Guards `dequeDynamicPhraseCache`. Innermost: under it the records' texts and counted pointers
/// are copied, and no samples are copied or freed.
extern platform::Mutex dynamicCacheMutex;

/// The texts spoken last, the least recently used at the front. One for the process; outlives the
/// builders through which it is used.
extern std::deque<DynamicPhraseCache> dequeDynamicPhraseCache GUARDED_BY(dynamicCacheMutex);

inline constexpr std::size_t kDynamicTexts = 10;
/// A longer wave is not kept: ten of them would be memory that short phrases never need.
inline constexpr int kLongestDynamicSeconds = 15;

/// The bodies of the dynamic operations of `QS_CacheThreadBase`, on any thread. Texts are compared
/// byte for byte; an empty one is refused.
namespace dynamic_cache {

/// Appends the text, which a look-up has missed. `refused` is read under the lock: set before a
/// `clear`, it keeps out whatever was synthesised before. False where nothing was stored.
bool add(std::string text, const Wave& wave, const std::atomic<bool>& refused)
    EXCLUDES(dynamicCacheMutex);
/// Moves the text to the newest end with these samples; false where it is not there or `count` is
/// 0.
bool refresh(std::string text, std::shared_ptr<const std::int16_t[]> samples, int count)
    EXCLUDES(dynamicCacheMutex);
bool contains(const std::string& text) EXCLUDES(dynamicCacheMutex);
/// The first record of the text, or an empty one.
DynamicPhraseCache get(const std::string& text) EXCLUDES(dynamicCacheMutex);
int size() EXCLUDES(dynamicCacheMutex);
void clear() EXCLUDES(dynamicCacheMutex);

}  // namespace dynamic_cache

}  // namespace qs_ns
