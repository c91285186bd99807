#include "cache/static_phrase_cache.h"

#include <utility>

namespace qs_ns {

platform::Mutex cacheMutex(true);
PhraseMap mapPhraseCache;

namespace static_cache {

PhraseMap clear() {
  return std::exchange(mapPhraseCache, {});
}

PhraseSamples store(const std::string& text, PhraseSamples sound) {
  return std::exchange(mapPhraseCache[text], std::move(sound));
}

PhraseSamples find(const std::string& text) {
  const auto found = mapPhraseCache.find(text);
  return found == mapPhraseCache.end() ? PhraseSamples{} : found->second;
}

int size() {
  return static_cast<int>(mapPhraseCache.size());
}

}  // namespace static_cache

}  // namespace qs_ns
