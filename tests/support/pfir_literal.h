#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "dsp/pfir.h"

namespace test {

using Samples = std::vector<std::int16_t>;

template <class Narrow>
Narrow saturate(std::int64_t value) {
  return static_cast<Narrow>(std::clamp<std::int64_t>(value, std::numeric_limits<Narrow>::min(),
                                                      std::numeric_limits<Narrow>::max()));
}

/// One output in literal arithmetic: four saturating lanes over the window that ends in sample
/// `end`; before the signal there is silence.
inline std::int16_t literalOutput(const Samples& signal, int end, const std::int16_t* coef,
                                  int taps) {
  std::array<std::int64_t, 4> lane{};
  for (int k = 0; k < taps; ++k) {
    const int at = end - taps + 1 + k;
    const std::int64_t sample = at < 0 ? 0 : signal[static_cast<std::size_t>(at)];
    auto& a = lane[static_cast<std::size_t>(k) % 4];
    a = saturate<std::int32_t>(a + saturate<std::int32_t>(2 * sample * coef[k]));
  }
  const auto sum = saturate<std::int32_t>(lane[0] + lane[1]) +
                   std::int64_t{saturate<std::int32_t>(lane[2] + lane[3])};
  return saturate<std::int16_t>(saturate<std::int32_t>(sum) >> 16);
}

/// The whole signal, without blocks.
inline Samples literalUp(const pfir_filterConfig* table, const Samples& signal) {
  Samples out;
  for (int n = 0; n < static_cast<int>(signal.size()); ++n)
    for (int phase = 0; phase < table->factor; ++phase)
      out.push_back(literalOutput(signal, n, table->coef() + phase * table->taps, table->taps));
  return out;
}

inline Samples literalDn(const pfir_filterConfig* table, const Samples& signal) {
  Samples out;
  for (int e = 0; e < static_cast<int>(signal.size()); e += table->factor)
    out.push_back(literalOutput(signal, e, table->coef(), table->taps));
  return out;
}

/// A state that is released at the end of its scope.
template <class State, auto init, auto release, auto run>
struct Filter {
  explicit Filter(const pfir_filterConfig* table) : status(init(&state, table)) {}
  ~Filter() { release(&state); }
  Filter(const Filter&) = delete;
  Filter& operator=(const Filter&) = delete;

  static constexpr auto kRelease = release;
  static constexpr auto kRun = run;
  State state{};
  int status;
};

using UpFilter = Filter<pfir_upFilterState, pfir_initUpFilter, pfir_releaseUpFilter, pfir_upFilter>;
using DnFilter = Filter<pfir_dnFilterState, pfir_initDnFilter, pfir_releaseDnFilter, pfir_dnFilter>;

}  // namespace test
