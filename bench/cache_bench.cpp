#include <benchmark/benchmark.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <flite/flite.h>

#include "cache/dynamic_phrase_cache.h"
#include "cache/phrase_list.h"
#include "cache/static_phrase_cache.h"
#include "platform/mutex.h"
#include "tts/wave.h"

// What a text to speak waits for when a cache is asked for it, with the caches full.

namespace {

const std::string kUnknown = "Incoming call from Ada Lovelace";

void fillStatic() {
  const platform::MutexLock lock(qs_ns::cacheMutex);
  for (const char* phrase : qs_ns::cachePhraseList)
    (void)qs_ns::static_cache::store(phrase, {std::make_shared<std::int16_t[]>(1), 1});
}

void findStatic(benchmark::State& state, const std::string& text) {
  fillStatic();
  for (auto _ : state) {
    const platform::MutexLock lock(qs_ns::cacheMutex);
    benchmark::DoNotOptimize(qs_ns::static_cache::find(text));
  }
}
BENCHMARK_CAPTURE(findStatic, first, std::string(qs_ns::cachePhraseList.front()));
BENCHMARK_CAPTURE(findStatic, last, std::string(qs_ns::cachePhraseList.back()));
BENCHMARK_CAPTURE(findStatic, unknown, kUnknown);

std::string dynamicText(std::size_t i) {
  return kUnknown + ' ' + std::to_string(i);
}

void fillDynamic() {
  const std::atomic<bool> refused{false};
  qs_ns::dynamic_cache::clear();
  for (std::size_t i = 0; i < qs_ns::kDynamicTexts; ++i) {
    qs_ns::Wave wave(new_wave());
    cst_wave_resize(wave.get(), 1, 1);
    cst_wave_set_sample_rate(wave.get(), 16000);
    qs_ns::dynamic_cache::add(dynamicText(i), wave, refused);
  }
}

/// As streaming asks: is it there, and only then for the record.
void findDynamic(benchmark::State& state, const std::string& text) {
  fillDynamic();
  for (auto _ : state) {
    const bool isKnown = qs_ns::dynamic_cache::contains(text);
    benchmark::DoNotOptimize(isKnown ? qs_ns::dynamic_cache::get(text)
                                     : qs_ns::DynamicPhraseCache{});
  }
}
BENCHMARK_CAPTURE(findDynamic, oldest, dynamicText(0));
BENCHMARK_CAPTURE(findDynamic, newest, dynamicText(qs_ns::kDynamicTexts - 1));
BENCHMARK_CAPTURE(findDynamic, unknown, kUnknown);

}  // namespace
