#include "cache/dynamic_phrase_cache.h"

#include <syslog.h>

#include <algorithm>
#include <utility>

#include "cache/phrase_samples.h"

namespace qs_ns {

platform::Mutex dynamicCacheMutex(true);
std::deque<DynamicPhraseCache> dequeDynamicPhraseCache;

namespace dynamic_cache {

namespace {

using Records = std::deque<DynamicPhraseCache>;

bool isUsable(const std::string& text, const char* operation) {
  if (!text.empty()) return true;
  syslog(LOG_WARNING, "QS_CT:%s: text is empty", operation);
  return false;
}

bool isTooLong(const cst_wave& wave) {
  return wave.num_samples > std::int64_t{kLongestDynamicSeconds} * wave.sample_rate;
}

Records::iterator findRecord(const std::string& text) REQUIRES(dynamicCacheMutex) {
  return std::find_if(dequeDynamicPhraseCache.begin(), dequeDynamicPhraseCache.end(),
                      [&](const DynamicPhraseCache& record) { return record.text == text; });
}

/// Appends a record and hands out those that have to leave for it.
[[nodiscard]] Records append(DynamicPhraseCache record) REQUIRES(dynamicCacheMutex) {
  Records evicted;
  dequeDynamicPhraseCache.push_back(std::move(record));
  while (dequeDynamicPhraseCache.size() > kDynamicTexts) {
    evicted.push_back(std::move(dequeDynamicPhraseCache.front()));
    dequeDynamicPhraseCache.pop_front();
  }
  return evicted;
}

/// Takes out every record of the text.
[[nodiscard]] Records takeOut(const std::string& text) REQUIRES(dynamicCacheMutex) {
  Records taken;
  for (auto found = findRecord(text); found != dequeDynamicPhraseCache.end();
       found = findRecord(text)) {
    taken.push_back(std::move(*found));
    dequeDynamicPhraseCache.erase(found);
  }
  return taken;
}

}  // namespace

bool add(std::string text, const Wave& wave, const std::atomic<bool>& refused) {
  constexpr const char* kOperation = "addDynamicCacheEntry";
  syslog(LOG_DEBUG, "%s: addying dynamic cache - text=%s", kOperation, text.c_str());
  if (!isUsable(text, kOperation)) return false;
  if (isEmpty(wave.get())) {
    syslog(LOG_WARNING, "QS_CT:%s: wave=NULL", kOperation);
    return false;
  }
  if (isTooLong(*wave)) return false;
  PhraseSamples sound = copySamples(*wave);
  const void* const address = sound.samples.get();
  Records evicted;
  {
    const platform::MutexLock lock(dynamicCacheMutex);
    if (refused) return false;
    evicted = append({std::move(text), std::move(sound.samples), sound.count});
  }
  syslog(LOG_DEBUG, "QS_CT:%s: Phrase dynamic buffer ptr - %p buffer size - %d", kOperation,
         address, sound.count);
  return true;
}

bool refresh(std::string text, std::shared_ptr<const std::int16_t[]> samples, int count) {
  constexpr const char* kOperation = "refreshDynamicCacheText";
  syslog(LOG_DEBUG, "%s: refeshing spot in queue - text=%s", kOperation, text.c_str());
  if (!isUsable(text, kOperation)) return false;
  if (count == 0) {
    syslog(LOG_WARNING, "QS_CT:%s: no wave file", kOperation);
    return false;
  }
  Records replaced;
  {
    const platform::MutexLock lock(dynamicCacheMutex);
    replaced = takeOut(text);
    if (!replaced.empty()) {
      dequeDynamicPhraseCache.push_back({std::move(text), std::move(samples), count});
      return true;
    }
  }
  syslog(LOG_WARNING, "QS_CT:%s: refresh failed didn't find the text", kOperation);
  return false;
}

bool contains(const std::string& text) {
  if (!isUsable(text, "isInDynamicCache")) return false;
  const platform::MutexLock lock(dynamicCacheMutex);
  return findRecord(text) != dequeDynamicPhraseCache.end();
}

DynamicPhraseCache get(const std::string& text) {
  constexpr const char* kOperation = "getDynamicCache";
  if (!isUsable(text, kOperation)) return {};
  {
    const platform::MutexLock lock(dynamicCacheMutex);
    const auto found = findRecord(text);
    if (found != dequeDynamicPhraseCache.end()) return *found;
  }
  syslog(LOG_WARNING, "QS_CT:%s: didn't find in cache", kOperation);
  return {};
}

int size() {
  const platform::MutexLock lock(dynamicCacheMutex);
  return static_cast<int>(dequeDynamicPhraseCache.size());
}

void clear() {
  Records removed;
  const platform::MutexLock lock(dynamicCacheMutex);
  removed.swap(dequeDynamicPhraseCache);
}

}  // namespace dynamic_cache

}  // namespace qs_ns
