#include <cmath>
#include <complex>
#include <numbers>
#include <numeric>
#include <vector>

#include <gtest/gtest.h>

#include "dsp/pfir.h"

namespace {

struct Table {
  const pfir_filterConfig* header;
  std::vector<int> phaseSums;
  double stopbandDb;  // from 1.15 of the lower rate's Nyquist frequency on

  int phases() const { return static_cast<int>(phaseSums.size()); }
  int size() const { return phases() * header->taps; }
  const std::int16_t* phase(int p) const { return header->coef() + p * header->taps; }

  /// Coefficient `i` of the filter at the higher rate.
  int prototype(int i) const { return phase(phases() - 1 - i % phases())[i / phases()]; }

  /// The gain in decibels at a fraction of the lower rate's Nyquist frequency.
  double gainDb(double frequency) const {
    const double step = -std::numbers::pi * frequency / header->factor;
    std::complex<double> sum;
    for (int i = 0; i < size(); ++i)
      sum += std::polar(1.0, step * i) * double(prototype(i));
    return 20 * std::log10(std::abs(sum) / (32768.0 * phases()));
  }
};

const Table kTables[] = {
    {pfir_getUpFilterConfig(2), {32730, 32730}, 68},
    {pfir_getUpFilterConfig(3), {32743, 32716, 32743}, 49},
    {pfir_getUpFilterConfig(6), {32751, 32713, 32734, 32734, 32713, 32751}, 68},
    {pfir_getDnFilterConfig(2), {32738}, 66},
    {pfir_getDnFilterConfig(3), {32738}, 65},
    {pfir_getDnFilterConfig(6), {32738}, 62},
};

void expectSymmetryButForOnePairOfTaps(const Table& table) {
  for (int i = 0; i < table.size(); ++i) {
    const int mirror = table.size() - 1 - i;
    // 134 and -35 are at taps 9 and 10 of phase 0, and in the same order at 37 and 38 of phase 2.
    const bool odd = table.header == pfir_getUpFilterConfig(3) &&
                     (i == 29 || i == 32 || mirror == 29 || mirror == 32);
    EXPECT_EQ(table.prototype(i) == table.prototype(mirror), !odd) << i;
  }
}

TEST(Tables, AreUnityGainFiltersThatPassSpeechAndStopItsImages) {
  for (const Table& table : kTables) {
    SCOPED_TRACE(&table - kTables);
    for (int p = 0; p < table.phases(); ++p)
      EXPECT_EQ(std::accumulate(table.phase(p), table.phase(p + 1), 0),
                table.phaseSums.at(static_cast<std::size_t>(p)))
          << p;
    expectSymmetryButForOnePairOfTaps(table);
    EXPECT_NEAR(table.gainDb(0.904), -3.01, 0.1);
    for (int permille = 0; permille <= 800; permille += 5)
      EXPECT_NEAR(table.gainDb(permille / 1000.0), 0, 0.1) << permille;
    for (int permille = 1150; permille <= 1000 * table.header->factor; permille += 5)
      EXPECT_LT(table.gainDb(permille / 1000.0), 0.5 - table.stopbandDb) << permille;
  }
}

}  // namespace
