#include "dsp/filter_path.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <limits>

namespace qs_ns {

#if defined(__x86_64__)
extern const FilterPath kSse2Path;
extern const FilterPath kAvx2Path;
#elif defined(__ARM_NEON)
extern const FilterPath kNeonPath;
#endif

namespace {

constexpr std::int32_t kInt32Max = std::numeric_limits<std::int32_t>::max();

/// What the doubled sum of each lane of one phase can reach, in samples of magnitude 1.
std::array<std::int64_t, 4> laneReach(const std::int16_t* coef, int taps) {
  std::array<std::int64_t, 4> reach{};
  for (unsigned k = 0; k < static_cast<unsigned>(taps); ++k)
    reach[k % 4] += 2 * std::abs(int{coef[k]});
  return reach;
}

}  // namespace

std::span<const FilterPath* const> runnablePaths() {
#if defined(__x86_64__)
  static constexpr std::array kPaths = {&kAvx2Path, &kSse2Path, &kPortablePath};
  return std::span(kPaths).subspan(__builtin_cpu_supports("avx2") != 0 ? 0 : 1);
#elif defined(__ARM_NEON)
  static constexpr std::array kPaths = {&kNeonPath, &kPortablePath};
  return kPaths;
#else
  static constexpr std::array kPaths = {&kPortablePath};
  return kPaths;
#endif
}

PeakLimits peakLimits(const std::int16_t* coef, int phases, int taps) {
  std::int64_t half = 1;
  std::int64_t lane = 1;
  for (int phase = 0; phase < phases; ++phase) {
    const auto reach = laneReach(coef + phase * taps, taps);
    half = std::max({half, reach[0] + reach[1], reach[2] + reach[3]});
    lane = std::max(lane, *std::max_element(reach.begin(), reach.end()));
  }
  return {static_cast<std::int32_t>(kInt32Max / half), static_cast<std::int32_t>(kInt32Max / lane)};
}

}  // namespace qs_ns
