#include <benchmark/benchmark.h>
#include <soxr.h>
#include <speex/speex_resampler.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "dsp/filter_path.h"
#include "dsp/pfir.h"

// One frame of 160 samples from 16 to 48 kHz: each path of ours at a peak in each of its tiers, and
// what others offer for the same job.

namespace {

constexpr int kFrame = 160;
constexpr int kFactor = 3;
constexpr int kSignalFrames = 64;

using Samples = std::vector<std::int16_t>;

/// Noise of which every frame reaches the peak.
Samples signalOf(int peak) {
  std::mt19937 random(1);
  std::uniform_int_distribution<int> any(-peak, std::min(peak, 32767));
  Samples signal(std::size_t{kSignalFrames} * kFrame);
  std::generate(signal.begin(), signal.end(),
                [&] { return static_cast<std::int16_t>(any(random)); });
  for (std::size_t i = 0; i < signal.size(); i += kFrame / 4)
    signal[i] = static_cast<std::int16_t>(-peak);
  return signal;
}

/// Times `convert(frame, out)`, frame after frame of a signal.
template <class Convert>
void timeFrames(benchmark::State& state, int peak, Convert convert) {
  const Samples signal = signalOf(peak);
  std::array<std::int16_t, kFactor * kFrame> out{};
  std::size_t at = 0;
  for (auto _ : state) {
    convert(signal.data() + at, out.data());
    benchmark::ClobberMemory();
    at = (at + kFrame) % signal.size();
  }
}

void ours(benchmark::State& state, const qs_ns::FilterPath* path, int peak) {
  pfir_upFilterState filter{};
  if (pfir_initUpFilter(&filter, pfir_getUpFilterConfig(kFactor)) != 0) throw std::bad_alloc();
  filter.path = path;
  timeFrames(state, peak, [&](const std::int16_t* in, std::int16_t* out) {
    pfir_upFilter(&filter, in, out, kFrame, nullptr);
  });
  pfir_releaseUpFilter(&filter);
}

void soxr(benchmark::State& state, unsigned long quality) {
  const soxr_io_spec_t io = soxr_io_spec(SOXR_INT16_I, SOXR_INT16_I);
  const soxr_quality_spec_t spec = soxr_quality_spec(quality, 0);
  const std::unique_ptr<struct soxr, decltype(&soxr_delete)> resampler(
      soxr_create(16000, 48000, 1, nullptr, &io, &spec, nullptr), soxr_delete);
  if (resampler == nullptr) throw std::runtime_error("soxr_create");
  std::size_t made = 0;
  timeFrames(state, 20000, [&](const std::int16_t* in, std::int16_t* out) {
    std::size_t done = 0;
    soxr_process(resampler.get(), in, kFrame, nullptr, out, std::size_t{kFactor} * kFrame, &done);
    made += done;
  });
  state.counters["made"] = static_cast<double>(made) / static_cast<double>(state.iterations());
}

void speexdsp(benchmark::State& state, int quality) {
  const std::unique_ptr<SpeexResamplerState, decltype(&speex_resampler_destroy)> resampler(
      speex_resampler_init(1, 16000, 48000, quality, nullptr), speex_resampler_destroy);
  if (resampler == nullptr) throw std::runtime_error("speex_resampler_init");
  std::size_t made = 0;
  timeFrames(state, 20000, [&](const std::int16_t* in, std::int16_t* out) {
    spx_uint32_t read = kFrame;
    spx_uint32_t done = kFactor * kFrame;
    speex_resampler_process_int(resampler.get(), 0, in, &read, out, &done);
    made += done;
  });
  state.counters["made"] = static_cast<double>(made) / static_cast<double>(state.iterations());
}

/// The peaks of speech, of speech that is too loud, and of what clips.
constexpr struct {
  const char* tier;
  int peak;
} kTiers[] = {{"plain", 24282}, {"half_sums", 30556}, {"lanes", 32768}};

/// The best of many short runs: what else the machine does only adds to a time.
template <class... Arguments>
void add(const std::string& name, Arguments... arguments) {
  benchmark::RegisterBenchmark(name.c_str(), arguments...)
      ->MinTime(0.01)
      ->Repetitions(40)
      ->ComputeStatistics(
          "best", [](const auto& times) { return *std::min_element(times.begin(), times.end()); })
      ->DisplayAggregatesOnly();
}

[[maybe_unused]] const bool kRegistered = [] {
  for (const auto& [tier, peak] : kTiers)
    for (const qs_ns::FilterPath* path : qs_ns::runnablePaths())
      add(std::string(path->name) + "/" + tier, ours, path, peak);
  add("soxr/quick", soxr, SOXR_QQ);
  add("soxr/low", soxr, SOXR_LQ);
  add("soxr/medium", soxr, SOXR_MQ);
  add("soxr/high", soxr, SOXR_HQ);
  for (const int quality : {0, 3, 5})
    add("speexdsp/" + std::to_string(quality), speexdsp, quality);
  return true;
}();

}  // namespace
