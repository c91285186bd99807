#pragma once

#include <cstdint>

// The arithmetic of both filter directions, behind pfir.h.
//
// An output is the inner product of a window of samples w with coefficients c, as a vector unit
// with four saturating 32-bit lanes forms it: tap k goes to lane k mod 4, the doubled product and
// every addition saturate, (lane 0 + lane 1) and (lane 2 + lane 3) are the two half sums, and the
// upper 16 bits of their saturated sum are the output. Saturation makes this slow without such a
// unit; but where the samples are so small that it cannot happen, plain sums give the same bits.

namespace qs_ns {

/// `phases` runs of `taps` coefficients, each run one output of a window.
struct CoefficientBank {
  const std::int16_t* coef;
  int phases;
  int taps;
};

/// `count` windows of a bank's taps, `step` samples from each to the next.
struct Windows {
  const std::int16_t* first;
  int count;
  int step;
};

/// The loudest samples (as magnitudes) up to which no half sum, and no lane, can saturate.
struct PeakLimits {
  std::int32_t halfSum;
  std::int32_t lane;
};

PeakLimits peakLimits(const CoefficientBank& bank);

/// The largest magnitude of `count` samples, 0 to 32,768.
std::int32_t peakOf(const std::int16_t* samples, int count);

/// Writes `phases` outputs for each window. `peak` is the largest magnitude in all the windows,
/// `limits` are the bank's.
void filterWindows(const CoefficientBank& bank, const Windows& windows, std::int32_t peak,
                   const PeakLimits& limits, std::int16_t* out);

}  // namespace qs_ns
