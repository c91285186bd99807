#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <random>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "dsp/filter_path.h"
#include "dsp/pfir.h"
#include "support/pfir_literal.h"

namespace {

using test::Samples;

constexpr std::int16_t kGuard = 12345;

const int kFactors[] = {2, 3, 6};

/// What comes out when `signal` goes through `filter` in blocks of `lengths` in turn, none too
/// short; what is left at the end joins the last block.
template <class Filter>
Samples runInBlocks(Filter& filter, const Samples& signal, const std::vector<int>& lengths,
                    std::size_t outputs) {
  Samples out(outputs + 1, kGuard);
  std::size_t written = 0;
  int at = 0;
  const int end = static_cast<int>(signal.size());
  for (std::size_t i = 0; at < end; ++i) {
    int length = lengths[i % lengths.size()];
    if (end - at - length < filter.state.taps) length = end - at;
    // A copy of the block's own size, so that a sanitizer sees a read beyond it.
    const Samples block(signal.begin() + at, signal.begin() + at + length);
    std::uint16_t count = 0;
    EXPECT_EQ(Filter::kRun(&filter.state, block.data(), out.data() + written, length, &count), 0);
    written += count;
    at += length;
  }
  EXPECT_EQ(written, outputs);
  EXPECT_EQ(out.back(), kGuard) << "written past the end";
  out.pop_back();
  return out;
}

/// Compares with the whole signal's output, on each path and for each way to cut the signal into
/// blocks.
template <class Filter>
void expectExact(const pfir_filterConfig* table, const Samples& signal,
                 const std::vector<std::vector<int>>& splits) {
  constexpr bool kUp = std::is_same_v<Filter, test::UpFilter>;
  const Samples expected = kUp ? test::literalUp(table, signal) : test::literalDn(table, signal);
  for (const qs_ns::FilterPath* path : qs_ns::runnablePaths())
    for (const auto& lengths : splits) {
      Filter filter(table);
      filter.state.path = path;
      EXPECT_EQ(runInBlocks(filter, signal, lengths, expected.size()), expected)
          << path->name << ", factor " << table->factor << ", blocks from " << lengths[0];
    }
}

std::int16_t withSignOf(int sign, int peak) {
  return static_cast<std::int16_t>(sign < 0 ? -peak : std::min(peak, 32767));
}

/// Windows that drive chosen lanes as far as a peak can, up or down, and fill the others: with
/// noise, so that what saturates, and by how little, differs from window to window, or with what
/// adds up to whole outputs at full scale, so that the lowest bit of a driven lane counts.
Samples adversary(const pfir_filterConfig* table, int phases, int peak, int windows) {
  std::mt19937 random(7);
  Samples signal;
  for (int window = 0; window < windows; ++window) {
    const auto* coef = table->coef() + window % phases * table->taps;
    const unsigned driven = random() % 16;
    const unsigned down = random() % 16;
    const bool isWhole = random() % 4 == 0;
    for (int k = 0; k < table->taps; ++k) {
      const int noise = static_cast<int>(random() % (2u * static_cast<unsigned>(peak))) - peak;
      const int rest = !isWhole ? noise : noise < 0 ? -peak : 0;
      const int sign = (coef[k] < 0) != ((down >> k % 4 & 1) != 0) ? -1 : 1;
      signal.push_back((driven >> k % 4 & 1) != 0 ? withSignOf(sign, peak)
                                                  : static_cast<std::int16_t>(rest));
    }
  }
  return signal;
}

/// At peaks on both sides of those where the arithmetic changes.
template <class Filter>
void expectExactAtEveryLoudness(const pfir_filterConfig* table, int phases, int windows,
                                const std::vector<std::vector<int>>& splits) {
  const Filter filter(table);
  const int half = filter.state.halfSumPeak;
  const int lane = filter.state.lanePeak;
  for (const int peak : {1, 1000, half, half + 1, lane, lane + 1, 32767, 32768}) {
    SCOPED_TRACE(peak);
    expectExact<Filter>(table, adversary(table, phases, peak, windows), splits);
  }
}

TEST(Interpolation, TakesTheFastestPathThatTheProcessorCanRun) {
  const test::UpFilter filter(pfir_getUpFilterConfig(3));
  EXPECT_EQ(filter.state.path, qs_ns::runnablePaths().front());
  EXPECT_EQ(qs_ns::runnablePaths().back(), &qs_ns::kPortablePath);
}

TEST(Interpolation, IsExactAtEveryLoudnessInBlocksOfAnyLength) {
  for (const int factor : kFactors)
    expectExactAtEveryLoudness<test::UpFilter>(pfir_getUpFilterConfig(factor), factor, 150,
                                               {{48}, {49, 57}, {94, 95, 96, 97}, {160, 48, 4000}});
}

// The arithmetic is chosen by block: the end of a loud one still counts in the quiet one after it,
// and a few loud samples at the end of one that is just quiet enough.
TEST(Interpolation, IsExactWhereLoudAndQuietMeetAndInTheLongestBlock) {
  constexpr int kLongest = 65535 / 3;
  const auto* table = pfir_getUpFilterConfig(3);
  const int edge = test::UpFilter(table).state.halfSumPeak;
  const Samples loud = adversary(table, 3, 32768, 68);
  const Samples quiet = adversary(table, 3, edge, 68);
  Samples signal;
  for (std::ptrdiff_t at = 0; at < std::ssize(loud); at += 48) {
    const auto window = loud.begin() + at;
    signal.resize(signal.size() + 160 - 47, 10);
    signal.insert(signal.end(), window, window + 47);
    signal.resize(signal.size() + 160 - 48, -10);
    signal.insert(signal.end(), quiet.begin() + at, quiet.begin() + at + 41);
    signal.insert(signal.end(), window + 41, window + 48);
  }
  signal.resize(kLongest);
  expectExact<test::UpFilter>(table, signal, {{160}, {kLongest}});
}

TEST(Decimation, KeepsOneEvenGridAtEveryLoudnessInBlocksOfAnyLength) {
  for (const int factor : kFactors) {
    const auto* table = pfir_getDnFilterConfig(factor);
    const int taps = table->taps;
    expectExactAtEveryLoudness<test::DnFilter>(
        table, 1, 40, {{taps}, {taps + 1}, {taps + 5, 2 * taps - 1, 2000}});
  }
}

}  // namespace
