#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "dsp/pfir.h"
#include "unit/dsp/pfir_literal.h"

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

template <class Filter>
void expectExact(const pfir_filterConfig* table, const Samples& expected, const Samples& signal,
                 const std::vector<int>& lengths) {
  Filter filter(table);
  EXPECT_EQ(runInBlocks(filter, signal, lengths, expected.size()), expected);
}

void expectUp(const pfir_filterConfig* table, const Samples& signal,
              const std::vector<int>& lengths) {
  expectExact<test::UpFilter>(table, test::literalUp(table, signal), signal, lengths);
}

void expectDn(const pfir_filterConfig* table, const Samples& signal,
              const std::vector<int>& lengths) {
  expectExact<test::DnFilter>(table, test::literalDn(table, signal), signal, lengths);
}

Samples noise(std::size_t length, int peak, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> level(-peak, std::min(peak, 32767));
  Samples signal(length);
  for (auto& sample : signal)
    sample = static_cast<std::int16_t>(level(random));
  return signal;
}

std::int16_t withSignOf(int sign, int peak) {
  return static_cast<std::int16_t>(sign < 0 ? -peak : std::min(peak, 32767));
}

/// Windows that drive chosen lanes as far as a peak can, up or down, and fill the others with
/// noise: what saturates, and by how little, differs from window to window.
Samples adversary(const pfir_filterConfig* table, int phases, int peak, int windows) {
  std::mt19937 random(7);
  Samples signal;
  for (int window = 0; window < windows; ++window) {
    const auto* coef = table->coef() + window % phases * table->taps;
    const unsigned driven = random() % 16;
    const unsigned down = random() % 16;
    for (int k = 0; k < table->taps; ++k) {
      const int wild = static_cast<int>(random() % (2u * static_cast<unsigned>(peak))) - peak;
      const int sign = (coef[k] < 0) != ((down >> k % 4 & 1) != 0) ? -1 : 1;
      signal.push_back((driven >> k % 4 & 1) != 0 ? withSignOf(sign, peak)
                                                  : static_cast<std::int16_t>(wild));
    }
  }
  return signal;
}

TEST(Interpolation, IsExactInBlocksOfAnyLength) {
  const std::vector<std::vector<int>> splits = {
      {48}, {49}, {50}, {94, 95, 96, 97}, {160}, {1000}, {48, 333, 51, 160, 49}};
  const Samples signal = noise(1500, 12000, 1);
  for (const int factor : kFactors)
    for (const auto& lengths : splits)
      expectUp(pfir_getUpFilterConfig(factor), signal, lengths);
}

TEST(Interpolation, IsExactAtEveryLoudness) {
  for (const int factor : kFactors) {
    const auto* table = pfir_getUpFilterConfig(factor);
    const auto state = test::UpFilter(table).state;
    for (const int peak : {1, 1000, state.halfSumPeak, state.halfSumPeak + 1, state.lanePeak,
                           state.lanePeak + 1, 32767, 32768}) {
      SCOPED_TRACE(testing::Message() << "factor " << factor << ", peak " << peak);
      expectUp(table, noise(400, peak, 2), {160, 48});
      expectUp(table, adversary(table, factor, peak, 150), {160, 48, 4000});
    }
  }
}

// The arithmetic is chosen by block: the end of a loud one still counts in the quiet one after it.
TEST(Interpolation, IsExactWhereLoudAndQuietBlocksMeet) {
  const auto* table = pfir_getUpFilterConfig(3);
  const Samples loud = adversary(table, 3, 32768, 60);
  Samples signal;
  for (auto window = loud.begin(); window != loud.end(); window += 48) {
    signal.resize(signal.size() + 160 - 47, 10);
    signal.insert(signal.end(), window, window + 47);
    signal.resize(signal.size() + 160, -10);
  }
  expectUp(table, signal, {160});
}

TEST(Interpolation, KnowsHowLoudASignalMayBeForPlainSums) {
  test::UpFilter filter(pfir_getUpFilterConfig(3));
  EXPECT_EQ(filter.state.halfSumPeak, 24282);
  EXPECT_EQ(filter.state.lanePeak, 30556);
}

TEST(Interpolation, TakesTheLongestBlocks) {
  expectUp(pfir_getUpFilterConfig(2), noise(32767, 32768, 3), {32767});
  expectUp(pfir_getUpFilterConfig(3), noise(21845, 20000, 4), {21845});
}

TEST(Interpolation, SettlesOnAConstantToTheSumsOfItsPhases) {
  const struct {
    std::int16_t level;
    Samples settled;
  } rows[] = {{16384, {16371, 16358, 16371}}, {-32768, {-32743, -32716, -32743}}};
  for (const auto& row : rows) {
    test::UpFilter filter(pfir_getUpFilterConfig(3));
    const Samples out = runInBlocks(filter, Samples(160, row.level), {160}, 480);
    for (std::size_t i = 48 * 3; i < out.size(); ++i)
      EXPECT_EQ(out[i], row.settled[i % 3]) << i;
  }
}

TEST(Interpolation, SaturatesInsteadOfWrapping) {
  const auto* coef = pfir_3xIntCoef.coef;
  Samples signal;
  for (int k = 0; k < 48; ++k)
    signal.push_back(withSignOf(coef[k], 32768));
  test::UpFilter filter(pfir_getUpFilterConfig(3));
  const Samples out = runInBlocks(filter, signal, {48}, 144);
  EXPECT_EQ(out[141], 32767);
  EXPECT_EQ(out[142], 32767);
}

TEST(Interpolation, NeedsNoPlaceForItsCount) {
  const Samples signal = noise(160, 32768, 5);
  test::UpFilter filter(pfir_getUpFilterConfig(3));
  Samples out(480);
  EXPECT_EQ(pfir_upFilter(&filter.state, signal.data(), out.data(), 160, nullptr), 0);
  EXPECT_EQ(out, test::literalUp(pfir_getUpFilterConfig(3), signal));
}

// Tables of one's own are welcome; this one saturates the doubled product itself.
TEST(Interpolation, IsExactWithTheLowestCoefficient) {
  pfir_filterTable<8> table{{2, 4, {}}, {-32768, 1, -1, 2, 32767, -32768, -32768, -32768}};
  Samples signal(64, -32768);
  signal[20] = 32767;
  expectUp(&table.header, signal, {5, 4, 7});
}

TEST(Decimation, KeepsOneEvenGridOverBlocksOfAnyLength) {
  for (const int factor : kFactors) {
    const auto* table = pfir_getDnFilterConfig(factor);
    const int taps = table->taps;
    const std::vector<std::vector<int>> splits = {
        {taps}, {taps + 1}, {taps + 5, taps}, {2 * taps - 1}, {taps + 160}, {300, 311, 323, 2000}};
    for (const auto& lengths : splits) {
      SCOPED_TRACE(testing::Message() << "factor " << factor << ", first " << lengths[0]);
      expectDn(table, noise(3001, 12000, 6), lengths);
    }
  }
}

TEST(Decimation, IsExactAtEveryLoudness) {
  for (const int factor : kFactors) {
    const auto* table = pfir_getDnFilterConfig(factor);
    const auto limit = test::DnFilter(table).state.halfSumPeak;
    for (const int peak : {1000, limit, limit + 1, 32768})
      expectDn(table, adversary(table, 1, peak, 40), {table->taps + 1, 400});
  }
}

TEST(Decimation, TakesTheLongestBlock) {
  expectDn(pfir_getDnFilterConfig(3), noise(32767, 32768, 8), {32767});
}

TEST(Decimation, CarriesThePhaseOfItsGrid) {
  const struct {
    int factor, length, outputs, phase;
  } rows[] = {{2, 160, 80, 0}, {2, 161, 81, 1}, {3, 160, 54, 2}, {3, 161, 54, 1}, {6, 301, 51, 5}};
  for (const auto& row : rows) {
    test::DnFilter filter(pfir_getDnFilterConfig(row.factor));
    Samples out(100);
    std::uint16_t count = 0;
    const Samples in(static_cast<std::size_t>(row.length));
    EXPECT_EQ(pfir_dnFilter(&filter.state, in.data(), out.data(), row.length, &count), 0);
    EXPECT_EQ(count, row.outputs);
    EXPECT_EQ(filter.state.phase, row.phase) << row.factor << " " << row.length;
  }
}

}  // namespace
