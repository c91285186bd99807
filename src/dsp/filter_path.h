#pragma once

#include <cstdint>
#include <span>

// The arithmetic of both filter directions, behind pfir.h.
//
// An output is the inner product of a window of samples w with coefficients c, as a vector unit
// with four saturating 32-bit lanes forms it: tap k goes to lane k mod 4, the doubled product and
// every addition saturate, (lane 0 + lane 1) and (lane 2 + lane 3) are the two half sums, and the
// upper 16 bits of their saturated sum are the output. Saturation makes this slow without such a
// unit; but where the samples are so small that it cannot happen, plain sums give the same bits.
//
// There is an implementation for each instruction set, all exact. None of them shares an inline
// function or a template with another file: the linker would keep one copy, which may hold
// instructions that the processor lacks.

namespace qs_ns {

/// The loudest samples (as magnitudes) up to which no half sum, and no lane, can saturate.
struct PeakLimits {
  std::int32_t halfSum;
  std::int32_t lane;
};

/// `phases` runs of `taps` coefficients, each run one output of a window.
struct CoefficientBank {
  const std::int16_t* coef;
  int phases;
  int taps;
  PeakLimits limits;
};

/// `count` windows (0 or more) of a bank's taps, `step` samples from each to the next.
struct Windows {
  const std::int16_t* first;
  int count;
  int step;
};

/// One implementation. Those for vector units know the table of interpolation by 3, consecutive
/// windows of it and not too few of them; all else they leave to the portable one.
struct FilterPath {
  const char* name;
  /// Writes the bank's `phases` outputs for each window; `out` lies apart from the samples.
  void (*filter)(const CoefficientBank& bank, const Windows& windows, std::int16_t* out);
};

extern const FilterPath kPortablePath;

/// What this processor can run, the fastest first; never empty, valid for ever. Any thread.
std::span<const FilterPath* const> runnablePaths();

/// Of the factor-3 table's lanes only these two can saturate, at this tap (of lane tap % 4) at the
/// earliest, and one signal drives them only to one of their two limits.
struct SaturatingLane {
  int phase;
  int firstTap;
};
constexpr SaturatingLane kSaturatingLanes[] = {{0, 27}, {2, 28}};

/// Nor do they where the samples at taps 23 and 24, which weigh most in them, are no louder.
constexpr int kQuietCentre = 30090;

PeakLimits peakLimits(const std::int16_t* coef, int phases, int taps);

}  // namespace qs_ns
