#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <numbers>
#include <numeric>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dsp/pfir.h"

namespace {

struct Table {
  const char* name;
  const pfir_filterConfig* header;
  std::size_t bytes;
  std::int16_t factor;
  std::int16_t taps;
  std::vector<int> phaseSums;
  double stopbandDb;  // from 1.15 of the lower rate's Nyquist frequency on

  int phases() const { return static_cast<int>(phaseSums.size()); }
  int size() const { return phases() * taps; }
  int at(int phase, int tap) const { return header->coef()[phase * taps + tap]; }

  /// Coefficient `i` of the filter at the higher rate.
  int prototype(int i) const { return at(phases() - 1 - i % phases(), i / phases()); }

  /// The gain in decibels at a fraction of the lower rate's Nyquist frequency.
  double gainDb(double frequency) const {
    std::complex<double> sum;
    for (int i = 0; i < size(); ++i)
      sum += std::polar(1.0, -std::numbers::pi * frequency / factor * i) * double(prototype(i));
    return 20 * std::log10(std::abs(sum) / (32768.0 * phases()));
  }
};

const std::vector<Table> kTables = {
    {"2xInt", &pfir_2xIntCoef.header, sizeof(pfir_2xIntCoef), 2, 48, {32730, 32730}, 68},
    {"3xInt", &pfir_3xIntCoef.header, sizeof(pfir_3xIntCoef), 3, 48, {32743, 32716, 32743}, 49},
    {"6xInt",
     &pfir_6xIntCoef.header,
     sizeof(pfir_6xIntCoef),
     6,
     48,
     {32751, 32713, 32734, 32734, 32713, 32751},
     68},
    {"2xDec", &pfir_2xDecCoef.header, sizeof(pfir_2xDecCoef), 2, 96, {32738}, 66},
    {"3xDec", &pfir_3xDecCoef.header, sizeof(pfir_3xDecCoef), 3, 144, {32738}, 65},
    {"6xDec", &pfir_6xDecCoef.header, sizeof(pfir_6xDecCoef), 6, 288, {32738}, 62},
};

class Tables : public testing::TestWithParam<Table> {};

TEST_P(Tables, HaveTheirLayout) {
  const Table& table = GetParam();
  EXPECT_EQ(table.header->factor, table.factor);
  EXPECT_EQ(table.header->taps, table.taps);
  EXPECT_EQ(table.header->reserved[0], 0);
  EXPECT_EQ(table.header->reserved[1], 0);
  EXPECT_EQ(table.bytes, 8 + 2 * static_cast<std::size_t>(table.size()));
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(table.header->coef()) % 8, 0u);
}

TEST_P(Tables, SumToJustUnderOneInEveryPhase) {
  const Table& table = GetParam();
  for (int phase = 0; phase < table.phases(); ++phase) {
    const auto* first = table.header->coef() + phase * table.taps;
    EXPECT_EQ(std::accumulate(first, first + table.taps, 0),
              table.phaseSums[static_cast<std::size_t>(phase)]);
  }
}

TEST_P(Tables, AreSymmetricButForOnePairOfTaps) {
  const Table& table = GetParam();
  for (int i = 0; i < table.size(); ++i) {
    const int mirror = table.size() - 1 - i;
    // 134 and -35 are at taps 9 and 10 of phase 0, and in the same order at 37 and 38 of phase 2.
    const bool odd = table.header == &pfir_3xIntCoef.header &&
                     (i == 29 || i == 32 || mirror == 29 || mirror == 32);
    EXPECT_EQ(table.prototype(i) == table.prototype(mirror), !odd) << i;
  }
}

TEST_P(Tables, HaveTheirMainLobeInTheMiddle) {
  const Table& table = GetParam();
  const int left = table.taps / 2 - 1;
  for (int phase = 0; phase < table.phases(); ++phase)
    for (int tap = 0; tap < table.taps; ++tap) {
      if (tap == left || tap == left + 1) continue;
      EXPECT_LT(std::abs(table.at(phase, tap)), std::abs(table.at(phase, left))) << tap;
      EXPECT_LT(std::abs(table.at(phase, tap)), std::abs(table.at(phase, left + 1))) << tap;
    }
}

TEST_P(Tables, PassSpeechAndStopItsImages) {
  const Table& table = GetParam();
  constexpr double kLeeway = 0.5;
  EXPECT_NEAR(table.gainDb(0.904), -3.01, 0.1);
  for (int permille = 0; permille <= 1000 * table.factor; permille += 5) {
    const double gain = table.gainDb(permille / 1000.0);
    if (permille <= 800) {
      EXPECT_NEAR(gain, 0, 0.1) << permille;
    } else if (permille >= 1150) {
      EXPECT_LT(gain, kLeeway - table.stopbandDb) << permille;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, Tables, testing::ValuesIn(kTables),
                         [](const auto& row) { return std::string(row.param.name); });

// Sums, symmetry and response leave room for another filter; these pin the one that is meant.
TEST(TableValues, AreTheseWhereItTells) {
  struct Run {
    const pfir_filterConfig* header;
    int first;
    std::vector<std::int16_t> values;
  };
  const Run runs[] = {
      {&pfir_2xIntCoef.header, 20, {71, 1016, -3787, 27602, 11460, -5528, 3657}},
      {&pfir_3xIntCoef.header, 8, {-33, 134, -35, -263}},
      {&pfir_3xIntCoef.header, 21, {-72, -2056, 29013, 8330, -4658, 3354}},
      {&pfir_3xIntCoef.header, 48 + 21, {3304, -6415, 20677, 20677, -6415, 3304}},
      {&pfir_3xIntCoef.header, 96 + 21, {3354, -4658, 8330, 29013, -2056, -72}},
      {&pfir_3xIntCoef.header, 96 + 36, {-263, 134, -35, -33}},
      {&pfir_6xIntCoef.header, 0, {-19, 29, -48, 70, -93, 112}},
      {&pfir_6xIntCoef.header, 21, {-1247, 73, 29880, 5334, -3608, 2881}},
      {&pfir_6xIntCoef.header, 48, {-27, 34, -49, 63, -72, 73}},
      {&pfir_6xIntCoef.header, 48 + 21, {1016, -3788, 27603, 11460, -5528, 3657}},
      {&pfir_6xIntCoef.header, 96, {-30, 31, -39, 42, -38, 22}},
      {&pfir_6xIntCoef.header, 96 + 21, {2739, -5967, 23362, 17733, -6462, 3646}},
      {&pfir_2xDecCoef.header, 42, {1828, 508, -2764, -1894, 5730, 13801, 13801, 5730}},
      {&pfir_3xDecCoef.header, 0, {-6, -13, -6, -1, 9, 11, 3, -10, -16, -8, 10, 23}},
      {&pfir_3xDecCoef.header, 68, {-685, 2777, 6892, 9671, 9671, 6892, 2777, -685}},
      {&pfir_6xDecCoef.header, 0, {0, -8, -5, -5, -5, -3, -1, 1, 4, 5, 6, 5}},
      {&pfir_6xDecCoef.header, 140, {2955, 3894, 4600, 4980, 4980, 4600, 3894, 2955}},
      {&pfir_6xDecCoef.header, 286, {-8, 0}},
  };
  for (const Run& run : runs) {
    const auto* first = run.header->coef() + run.first;
    EXPECT_EQ(std::vector(first, first + run.values.size()), run.values) << run.first;
  }
}

TEST(TableGetters, KnowThreeFactors) {
  for (int i = 0; i < 3; ++i) {
    const Table& up = kTables[static_cast<std::size_t>(i)];
    const Table& dn = kTables[static_cast<std::size_t>(i) + 3];
    EXPECT_EQ(pfir_getUpFilterConfig(up.factor), up.header);
    EXPECT_EQ(pfir_getDnFilterConfig(dn.factor), dn.header);
  }
  for (const int factor : {-2, 0, 1, 4, 5, 7}) {
    EXPECT_EQ(pfir_getUpFilterConfig(factor), nullptr);
    EXPECT_EQ(pfir_getDnFilterConfig(factor), nullptr);
  }
}

}  // namespace
