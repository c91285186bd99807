#include "dsp/inner_product.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <span>

namespace qs_ns {
namespace {

using Sample = std::int16_t;

constexpr std::int32_t kInt32Max = std::numeric_limits<std::int32_t>::max();

// Without branches and wider types, so that a loop over it becomes vector code.
constexpr std::int32_t saturatedSum(std::int32_t a, std::int32_t b) {
  const auto sum =
      static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
  const std::int32_t overflowed = ((a ^ sum) & (b ^ sum)) >> 31;
  const std::int32_t limit = (a >> 31) ^ kInt32Max;
  return (sum & ~overflowed) | (limit & overflowed);
}

constexpr std::int32_t saturatedDouble(std::int32_t value) {
  return saturatedSum(value, value);
}

constexpr Sample saturated16(std::int32_t value) {
  return static_cast<Sample>(std::clamp<std::int32_t>(value, std::numeric_limits<Sample>::min(),
                                                      std::numeric_limits<Sample>::max()));
}

constexpr Sample outputOf(std::int32_t firstHalf, std::int32_t secondHalf) {
  return saturated16(saturatedSum(firstHalf, secondHalf) >> 16);
}

/// The definition, for `width` windows that begin one sample after the other: the same lane of
/// several windows fills a vector of any size. The outputs are `stride` apart.
template <int width>
void fourLanes(const Sample* w, const Sample* c, int taps, Sample* out, int stride) {
  std::int32_t lane[4][width] = {};
  for (int k = 0; k < taps; ++k)
    for (int i = 0; i < width; ++i)
      lane[k % 4][i] = saturatedSum(lane[k % 4][i], saturatedDouble(w[k + i] * c[k]));
  for (int i = 0; i < width; ++i)
    out[i * stride] =
        outputOf(saturatedSum(lane[0][i], lane[1][i]), saturatedSum(lane[2][i], lane[3][i]));
}

/// Exact while no half sum saturates: the undoubled sum then fits 32 bits, and what is left of
/// the definition's last two saturations is the one to 16 bits.
struct PlainSum {
  static Sample of(const Sample* w, const Sample* c, int taps) {
    std::int32_t sum = 0;
    for (int k = 0; k < taps; ++k)
      sum += w[k] * c[k];
    return saturated16(sum >> 15);
  }
};

/// Exact while no lane saturates: each undoubled half sum then fits 32 bits.
struct HalfSums {
  static Sample of(const Sample* w, const Sample* c, int taps) {
    std::int32_t first = 0;
    std::int32_t second = 0;
    for (int k = 0; k < taps; ++k) {
      // Masked coefficients, not two strided sums, keep this one multiply-add of neighbours.
      const int inFirst = ((k & 2) >> 1) - 1;
      first += w[k] * static_cast<Sample>(c[k] & inFirst);
      second += w[k] * static_cast<Sample>(c[k] & ~inFirst);
    }
    return outputOf(saturatedDouble(first), saturatedDouble(second));
  }
};

/// One phase's outputs, `stride` apart. The coefficients come by value: an array of them, which no
/// output can overlap, stays in registers from window to window.
template <class Sum, class Coefficients>
void filterPhase(const Windows& windows, const Coefficients c, Sample* out, int stride) {
  const Sample* window = windows.first;
  for (int i = 0; i < windows.count; ++i, window += windows.step, out += stride)
    *out = Sum::of(window, c.data(), static_cast<int>(c.size()));
}

template <class Sum>
void filterBySums(const CoefficientBank& bank, const Windows& windows, Sample* out) {
  std::array<Sample, 48> usual;  // every interpolation table's length
  for (int phase = 0; phase < bank.phases; ++phase) {
    const std::span c(bank.coef + phase * bank.taps, static_cast<std::size_t>(bank.taps));
    if (c.size() == usual.size()) {
      std::copy(c.begin(), c.end(), usual.begin());
      filterPhase<Sum>(windows, usual, out + phase, bank.phases);
    } else {
      filterPhase<Sum>(windows, c, out + phase, bank.phases);
    }
  }
}

template <int width>
void filterByLanes(const CoefficientBank& bank, const Sample* window, Sample* out) {
  for (int phase = 0; phase < bank.phases; ++phase)
    fourLanes<width>(window, bank.coef + phase * bank.taps, bank.taps, out + phase, bank.phases);
}

void filterByLanes(const CoefficientBank& bank, const Windows& windows, Sample* out) {
  constexpr int wide = 16;
  int i = 0;
  if (windows.step == 1)
    for (; i + wide <= windows.count; i += wide)
      filterByLanes<wide>(bank, windows.first + i, out + i * bank.phases);
  for (; i < windows.count; ++i)
    filterByLanes<1>(bank, windows.first + i * windows.step, out + i * bank.phases);
}

/// What the doubled sum of each lane of one phase can reach, in samples of magnitude 1.
std::array<std::int64_t, 4> laneReach(const std::int16_t* coef, int taps) {
  std::array<std::int64_t, 4> reach{};
  for (unsigned k = 0; k < static_cast<unsigned>(taps); ++k)
    reach[k % 4] += 2 * std::abs(int{coef[k]});
  return reach;
}

}  // namespace

PeakLimits peakLimits(const CoefficientBank& bank) {
  std::int64_t half = 1;
  std::int64_t lane = 1;
  for (int phase = 0; phase < bank.phases; ++phase) {
    const auto reach = laneReach(bank.coef + phase * bank.taps, bank.taps);
    half = std::max({half, reach[0] + reach[1], reach[2] + reach[3]});
    lane = std::max(lane, *std::max_element(reach.begin(), reach.end()));
  }
  return {static_cast<std::int32_t>(kInt32Max / half), static_cast<std::int32_t>(kInt32Max / lane)};
}

std::int32_t peakOf(const std::int16_t* samples, int count) {
  std::int16_t low = 0;
  std::int16_t high = 0;
  for (int i = 0; i < count; ++i) {
    low = std::min(low, samples[i]);
    high = std::max(high, samples[i]);
  }
  return std::max<std::int32_t>(high, -low);
}

void filterWindows(const CoefficientBank& bank, const Windows& windows, std::int32_t peak,
                   const PeakLimits& limits, std::int16_t* out) {
  if (peak <= limits.halfSum) return filterBySums<PlainSum>(bank, windows, out);
  if (peak <= limits.lane) return filterBySums<HalfSums>(bank, windows, out);
  filterByLanes(bank, windows, out);
}

}  // namespace qs_ns
