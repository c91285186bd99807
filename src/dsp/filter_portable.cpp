#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>

#include "dsp/filter_path.h"

namespace qs_ns {
namespace {

using Sample = std::int16_t;

std::int32_t saturatedSum(std::int32_t a, std::int32_t b) {
  using Limits = std::numeric_limits<std::int32_t>;
  std::int32_t sum = 0;
  if (!__builtin_add_overflow(a, b, &sum)) return sum;
  return a < 0 ? Limits::min() : Limits::max();
}

Sample saturated16(std::int32_t value) {
  using Limits = std::numeric_limits<Sample>;
  return static_cast<Sample>(std::clamp<std::int32_t>(value, Limits::min(), Limits::max()));
}

/// The definition.
struct FourLanes {
  static std::int32_t lane(const Sample* w, const Sample* c, int taps, int first) {
    std::int32_t sum = 0;
    for (int k = first; k < taps; k += 4)
      sum = saturatedSum(sum, saturatedSum(w[k] * c[k], w[k] * c[k]));
    return sum;
  }

  static Sample of(const Sample* w, const Sample* c, int taps) {
    const auto first = saturatedSum(lane(w, c, taps, 0), lane(w, c, taps, 1));
    const auto second = saturatedSum(lane(w, c, taps, 2), lane(w, c, taps, 3));
    return static_cast<Sample>(saturatedSum(first, second) >> 16);
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
    const auto sum = saturatedSum(saturatedSum(first, first), saturatedSum(second, second));
    return static_cast<Sample>(sum >> 16);
  }
};

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

/// One phase's outputs, `stride` apart. The coefficients come by value: an array of them, which no
/// output can overlap, stays in registers from window to window.
template <class Sum, class Coefficients>
void filterPhase(const Windows& windows, const Coefficients c, Sample* out, int stride) {
  const Sample* window = windows.first;
  for (int i = 0; i < windows.count; ++i, window += windows.step, out += stride)
    *out = Sum::of(window, c.data(), static_cast<int>(c.size()));
}

template <class Sum>
void filterBy(const CoefficientBank& bank, const Windows& windows, Sample* out) {
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

std::int32_t peakOf(const Sample* samples, int count) {
  Sample low = 0;
  Sample high = 0;
  for (int i = 0; i < count; ++i) {
    low = std::min(low, samples[i]);
    high = std::max(high, samples[i]);
  }
  return std::max<std::int32_t>(high, -low);
}

void filter(const CoefficientBank& bank, const Windows& windows, Sample* out) {
  if (windows.count == 0) return;
  const std::int32_t peak = peakOf(windows.first, (windows.count - 1) * windows.step + bank.taps);
  if (peak <= bank.limits.halfSum)
    filterBy<PlainSum>(bank, windows, out);
  else if (peak <= bank.limits.lane)
    filterBy<HalfSums>(bank, windows, out);
  else
    filterBy<FourLanes>(bank, windows, out);
}

}  // namespace

const FilterPath kPortablePath = {"portable", filter};

}  // namespace qs_ns
