#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include <flite/flite.h>

namespace qs_ns {

/// The sound of one text as a cache keeps it: mono, signed 16-bit, at the voice's own rate, which
/// is not stored. Copies share the samples, which live as long as the last copy.
struct PhraseSamples {
  std::shared_ptr<const std::int16_t[]> samples;
  int count = 0;
};

inline bool isEmpty(const cst_wave* wave) {
  return wave == nullptr || wave->num_samples <= 0;
}

/// A copy of what a wave (not an empty one) holds.
inline PhraseSamples copySamples(const cst_wave& wave) {
  const auto count = static_cast<std::size_t>(wave.num_samples);
  auto samples = std::make_shared_for_overwrite<std::int16_t[]>(count);
  std::copy_n(wave.samples, count, samples.get());
  return {std::move(samples), wave.num_samples};
}

}  // namespace qs_ns
