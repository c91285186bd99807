#pragma once

#include <cstddef>
#include <cstdint>

// Fixed-point sample-rate conversion of mono signed 16-bit sound by 2, 3 or 6, with polyphase FIR
// filters. Samples and coefficients are Q15. The caller owns the state; a state belongs to one
// signal and one thread at a time. Nothing here locks, logs, or (but for the two initialisers)
// allocates. Every status is 0 for success.
//
// Results are exact to the bit: those of a vector unit with four saturating 32-bit lanes (see
// filter_path.h), whatever the processor.

namespace qs_ns {
struct FilterPath;
}

/// What a table begins with; its coefficients follow on the next 8-byte boundary.
struct alignas(8) pfir_filterConfig {
  std::int16_t factor;
  /// Interpolation: taps of each of the `factor` phases. Decimation: taps in all.
  std::int16_t taps;
  std::int16_t reserved[2];

  /// Oldest sample's first; for interpolation phase after phase. Only for the head of a table.
  const std::int16_t* coef() const { return reinterpret_cast<const std::int16_t*>(this + 1); }
};

/// One set of coefficients, read-only. The functions below take a pointer to its header.
template <std::size_t coefficients>
struct pfir_filterTable {
  pfir_filterConfig header;
  std::int16_t coef[coefficients];
};

// NOLINTBEGIN(readability-identifier-naming): the prefix belongs to all of this interface
extern const pfir_filterTable<96> pfir_2xIntCoef;
extern const pfir_filterTable<144> pfir_3xIntCoef;
extern const pfir_filterTable<288> pfir_6xIntCoef;
extern const pfir_filterTable<96> pfir_2xDecCoef;
extern const pfir_filterTable<144> pfir_3xDecCoef;
extern const pfir_filterTable<288> pfir_6xDecCoef;
// NOLINTEND(readability-identifier-naming)

/// The memory of one interpolated signal.
struct pfir_upFilterState {
  std::int16_t factor;
  std::int16_t taps;
  const std::int16_t* coef;
  /// 2 x `taps` samples, 8-byte aligned; the first `taps` - 1 are the newest of the block before.
  std::int16_t* history;
  /// The loudest samples (0 to 32,768) up to which no half sum, and no lane, can saturate.
  std::int32_t halfSumPeak;
  std::int32_t lanePeak;
  /// The fastest that the processor can run.
  const qs_ns::FilterPath* path;
};

/// The memory of one decimated signal.
struct pfir_dnFilterState {
  std::int16_t factor;
  std::int16_t taps;
  /// Index in the next block of the first sample at which an output is due.
  std::int16_t phase;
  const std::int16_t* coef;
  std::int16_t* history;
  std::int32_t halfSumPeak;
  std::int32_t lanePeak;
  const qs_ns::FilterPath* path;
};

/// The table for a factor of 2, 3 or 6; null for any other.
const pfir_filterConfig* pfir_getUpFilterConfig(int factor);
const pfir_filterConfig* pfir_getDnFilterConfig(int factor);

/// Starts a signal from silence in a state that is new or released; a live one would lose its
/// memory. 1: null argument, or no memory; 2: `taps` not a positive multiple of 4, or a factor
/// below 1. A state that was refused holds no memory.
int pfir_initUpFilter(pfir_upFilterState* state, const pfir_filterConfig* config);
/// 1: null argument, or no memory; 2: a factor below 1, or `taps` not a positive multiple of it.
int pfir_initDnFilter(pfir_dnFilterState* state, const pfir_filterConfig* config);

/// Forgets the signal: the history is silence again, everything else stays. 1: null, or released.
int pfir_resetUpFilter(pfir_upFilterState* state);

/// Frees the history and zeroes the record. 1: null, or already released.
int pfir_releaseUpFilter(pfir_upFilterState* state);
int pfir_releaseDnFilter(pfir_dnFilterState* state);

/// Interpolates a block of `taps` to 32,767 samples into `factor` x `nIn`, at most 65,535; `out`
/// lies apart from `in`. `outCount` (may be null) is 0 on entry and then the number written.
/// Tested in this order: 2: null argument, or a released state; 1: a block outside those lengths;
/// 2: more than 48 taps. Nothing changes on failure.
int pfir_upFilter(pfir_upFilterState* state, const std::int16_t* in, std::int16_t* out, int nIn,
                  std::uint16_t* outCount);
/// Decimates a block (`out` lies apart from `in`); blocks of any allowed length continue one even
/// grid. Writes one sample for each of `phase`, `phase` + `factor`, ... below `nIn`. 1: null
/// argument, a released state, or a block outside `taps` to 32,767; 2: `phase` outside 0 to
/// `factor`. Nothing changes on failure.
int pfir_dnFilter(pfir_dnFilterState* state, const std::int16_t* in, std::int16_t* out, int nIn,
                  std::uint16_t* outCount);
