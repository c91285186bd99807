#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "dsp/filter_path.h"
#include "dsp/pfir.h"
#include "support/pfir_literal.h"

// Any signal in any blocks, up and down, on each path, against literal arithmetic.

namespace {

using test::Samples;

/// Runs the signal on a path in blocks whose lengths `lengths` gives, none shorter than the filter
/// needs.
template <class Filter>
Samples inBlocks(const pfir_filterConfig* table, const Samples& signal,
                 const std::array<std::uint8_t, 4>& lengths, const qs_ns::FilterPath* path) {
  Filter filter(table);
  filter.state.path = path;
  const auto total = static_cast<int>(signal.size());
  Samples out(signal.size() * static_cast<std::size_t>(table->factor));
  std::size_t written = 0;
  for (int at = 0, i = 0; at < total; ++i) {
    int length = table->taps + lengths[static_cast<std::size_t>(i) % lengths.size()];
    if (total - at - length < table->taps) length = total - at;
    std::uint16_t count = 0;
    if (Filter::kRun(&filter.state, signal.data() + at, out.data() + written, length, &count) != 0)
      std::abort();
    written += count;
    at += length;
  }
  out.resize(written);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHeader = 5;
  if (size < kHeader) return 0;
  constexpr std::array<std::int16_t, 3> kFactors = {2, 3, 6};
  const int factor = kFactors[data[0] % kFactors.size()];
  std::array<std::uint8_t, 4> lengths{};
  std::copy_n(data + 1, lengths.size(), lengths.begin());
  Samples signal((size - kHeader) / sizeof(std::int16_t));
  std::memcpy(signal.data(), data + kHeader, signal.size() * sizeof(std::int16_t));

  const pfir_filterConfig* const up = pfir_getUpFilterConfig(factor);
  if (signal.size() < static_cast<std::size_t>(up->taps)) return 0;
  const Samples expectedUp = test::literalUp(up, signal);
  for (const qs_ns::FilterPath* path : qs_ns::runnablePaths())
    if (inBlocks<test::UpFilter>(up, signal, lengths, path) != expectedUp) std::abort();
  const pfir_filterConfig* const down = pfir_getDnFilterConfig(factor);
  if (signal.size() < static_cast<std::size_t>(down->taps)) return 0;
  if (inBlocks<test::DnFilter>(down, signal, lengths, &qs_ns::kPortablePath) !=
      test::literalDn(down, signal))
    std::abort();
  return 0;
}
