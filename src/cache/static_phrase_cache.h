#pragma once

#include <map>
#include <string>

#include "cache/phrase_samples.h"
#include "platform/mutex.h"

namespace qs_ns {

/// Guards `mapPhraseCache`: the look-ups and the copying of what they find. Never held around a
/// synthesis or while samples are freed. Taken before `dynamicCacheMutex` where both are.
extern platform::Mutex cacheMutex;

using PhraseMap = std::map<std::string, PhraseSamples>;

/// The interface's phrases that are ready to be spoken. One for the process; outlives the builders.
extern PhraseMap mapPhraseCache GUARDED_BY(cacheMutex);

/// The operations on `mapPhraseCache`, on any thread, under the caller's lock. What they take out
/// is handed back, for the caller to free once it has let go of the lock.
namespace static_cache {

[[nodiscard]] PhraseMap clear() REQUIRES(cacheMutex);
/// Returns what the phrase had before, count 0 where it is new.
[[nodiscard]] PhraseSamples store(const std::string& text, PhraseSamples sound)
    REQUIRES(cacheMutex);
/// The phrase's sound, count 0 where it is not there.
PhraseSamples find(const std::string& text) REQUIRES(cacheMutex);
int size() REQUIRES(cacheMutex);

}  // namespace static_cache

}  // namespace qs_ns
