#include <emmintrin.h>

#include <cstring>

#include "dsp/filter_path.h"
#include "dsp/pfir.h"

#define ALWAYS_INLINE [[gnu::always_inline]] inline

// As the AVX2 path (see there) in vectors of half the size: 8 windows at a time.

namespace qs_ns {
namespace {

using Sample = std::int16_t;

constexpr int kPhases = 3;
constexpr int kTaps = 48;
constexpr int kGroup = 8;

/// A sum for each window of a group: windows 0, 2, 4, 6 and windows 1, 3, 5, 7.
struct Sums {
  __m128i even;
  __m128i odd;
};

struct PhaseSums {
  Sums phase[kPhases];
};

__m128i load(const Sample* from) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}

/// The coefficients of two neighbouring taps in every pair, ready to be multiplied with.
struct Pairs {
  Pairs() {
    for (int p = 0; p < kPhases; ++p)
      for (int k = 0; k < kTaps; k += 2) {
        int both = 0;
        std::memcpy(&both, pfir_3xIntCoef.coef + p * kTaps + k, sizeof both);
        of[k / 2][p] = _mm_set1_epi32(both);
      }
  }

  __m128i of[kTaps / 2][kPhases];
};
const Pairs kPairs;

Sums products(const Sample* samples, __m128i pair) {
  return {_mm_madd_epi16(load(samples), pair), _mm_madd_epi16(load(samples + 1), pair)};
}

/// Of tap `k` alone; a pair that began with tap 47 would reach beyond the last window.
Sums productsOfOne(const Sample* w, const Sample* c, int k) {
  const int coef = k % 2 == 0 ? static_cast<std::uint16_t>(c[k]) : c[k] * 65536;
  return products(w + k - k % 2, _mm_set1_epi32(coef));
}

Sums sum(Sums a, Sums b) {
  return {_mm_add_epi32(a.even, b.even), _mm_add_epi32(a.odd, b.odd)};
}

__m128i saturatedSum(__m128i a, __m128i b) {
  const __m128i plain = _mm_add_epi32(a, b);
  const __m128i overflow =
      _mm_srai_epi32(_mm_andnot_si128(_mm_xor_si128(a, b), _mm_xor_si128(a, plain)), 31);
  const __m128i limit = _mm_xor_si128(_mm_srai_epi32(a, 31), _mm_set1_epi32(0x7fffffff));
  return _mm_or_si128(_mm_and_si128(overflow, limit), _mm_andnot_si128(overflow, plain));
}

__m128i larger(__m128i a, __m128i b) {
  const __m128i isA = _mm_cmpgt_epi32(a, b);
  return _mm_or_si128(_mm_and_si128(isA, a), _mm_andnot_si128(isA, b));
}

__m128i smaller(__m128i a, __m128i b) {
  const __m128i isB = _mm_cmpgt_epi32(a, b);
  return _mm_or_si128(_mm_and_si128(isB, b), _mm_andnot_si128(isB, a));
}

Sums saturatedSum(Sums a, Sums b) {
  return {saturatedSum(a.even, b.even), saturatedSum(a.odd, b.odd)};
}

/// Of every `step`th pair of taps from pair `first` on: exact where the sums fit 32 bits.
ALWAYS_INLINE PhaseSums pairSums(const Sample* w, int first, int step) {
  const Sums zero{_mm_setzero_si128(), _mm_setzero_si128()};
  PhaseSums sums{zero, zero, zero};
#pragma GCC unroll 4
  for (int pair = first; pair < kTaps / 2; pair += step)
    for (int p = 0; p < kPhases; ++p)
      sums.phase[p] = sum(sums.phase[p], products(w + 2 * pair, kPairs.of[pair][p]));
  return sums;
}

/// A lane's undoubled sum, and the ends of the way that it took.
struct Way {
  __m128i sum;
  __m128i high;
  __m128i low;
};

Way onward(Way way, __m128i product) {
  const __m128i sum = _mm_add_epi32(way.sum, product);
  return {sum, larger(way.high, sum), smaller(way.low, sum)};
}

/// The half sum of a lane that may saturate and one, the rest of `pairs`, that does not. The lane
/// ends short of its plain sum by as much as the way to it went beyond the limit.
__m128i halfSum(Way way, __m128i pairs) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i limit = _mm_set1_epi32(1 << 30);
  const __m128i above = larger(_mm_sub_epi32(way.high, limit), zero);
  const __m128i below = smaller(_mm_add_epi32(way.low, limit), zero);
  const __m128i held = _mm_sub_epi32(_mm_sub_epi32(way.sum, above), below);
  // Doubled, the limit above is an odd number, and whatever follows it stays odd.
  const __m128i isBelowLimit = _mm_cmpgt_epi32(limit, way.high);
  const __m128i odd = _mm_andnot_si128(isBelowLimit, _mm_set1_epi32(-1));
  const __m128i lane = _mm_add_epi32(_mm_add_epi32(held, held), odd);
  const __m128i rest = _mm_sub_epi32(pairs, way.sum);
  return saturatedSum(lane, _mm_add_epi32(rest, rest));
}

Sums halfSums(const Sample* w, const Sample* c, int firstTap, Sums pairs) {
  const __m128i zero = _mm_setzero_si128();
  Sums plain{zero, zero};
  int k = firstTap % 4;
  for (; k < firstTap; k += 4)
    plain = sum(plain, productsOfOne(w, c, k));
  Way even{plain.even, zero, zero};
  Way odd{plain.odd, zero, zero};
  for (; k < kTaps; k += 4) {
    const Sums next = productsOfOne(w, c, k);
    even = onward(even, next.even);
    odd = onward(odd, next.odd);
  }
  return {halfSum(even, pairs.even), halfSum(odd, pairs.odd)};
}

/// 16 bits for each window of a group, in order.
template <int shift>
__m128i outputs(Sums sums) {
  const __m128i packed =
      _mm_packs_epi32(_mm_srai_epi32(sums.even, shift), _mm_srai_epi32(sums.odd, shift));
  return _mm_unpacklo_epi16(packed, _mm_srli_si128(packed, 8));
}

/// Writes two windows' outputs, each with a fourth sample that the next window's overwrite.
void writeTwo(__m128i outputs, Sample* out) {
  _mm_storel_epi64(reinterpret_cast<__m128i*>(out), outputs);
  _mm_storel_epi64(reinterpret_cast<__m128i*>(out + kPhases), _mm_srli_si128(outputs, 8));
}

/// Writes the outputs of all phases, window after window.
ALWAYS_INLINE void interleave(const __m128i (&outputs)[kPhases], Sample* out) {
  const auto [a, b, c] = outputs;
  const __m128i abLow = _mm_unpacklo_epi16(a, b);
  const __m128i abHigh = _mm_unpackhi_epi16(a, b);
  const __m128i cLow = _mm_unpacklo_epi16(c, c);
  const __m128i cHigh = _mm_unpackhi_epi16(c, c);
  writeTwo(_mm_unpacklo_epi32(abLow, cLow), out);
  writeTwo(_mm_unpackhi_epi32(abLow, cLow), out + 6);
  writeTwo(_mm_unpacklo_epi32(abHigh, cHigh), out + 12);
  // Nothing comes after the last window.
  const __m128i last = _mm_unpackhi_epi32(abHigh, cHigh);
  _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 18), last);
  for (int p = 0; p < kPhases; ++p)
    out[21 + p] = static_cast<Sample>(_mm_extract_epi16(outputs[p], 7));
}

/// Exact while no half sum saturates: the undoubled sum then fits 32 bits.
ALWAYS_INLINE void filterPlain(const Sample* w, Sample* out) {
  const auto [sums] = pairSums(w, 0, 1);
  interleave({outputs<15>(sums[0]), outputs<15>(sums[1]), outputs<15>(sums[2])}, out);
}

bool isLouder(const Sample* samples, Sample limit) {
  const __m128i loud =
      _mm_or_si128(_mm_cmpgt_epi16(load(samples), _mm_set1_epi16(limit)),
                   _mm_cmpgt_epi16(_mm_set1_epi16(static_cast<Sample>(-limit)), load(samples)));
  return _mm_movemask_epi8(loud) != 0;
}

/// Exact while no lane saturates, and else with `lanesToo`.
ALWAYS_INLINE void filterSaturating(const Sample* w, const Sample* c, bool lanesToo, Sample* out) {
  const PhaseSums pairs[] = {pairSums(w, 0, 2), pairSums(w, 1, 2)};
  PhaseSums halves[2];
  for (int half = 0; half < 2; ++half)
    for (int p = 0; p < kPhases; ++p)
      halves[half].phase[p] = saturatedSum(pairs[half].phase[p], pairs[half].phase[p]);
  if (lanesToo && (isLouder(w + 23, kQuietCentre) || isLouder(w + 24, kQuietCentre)))
    for (const auto& [p, tap] : kSaturatingLanes) {
      const int half = tap % 4 / 2;
      halves[half].phase[p] = halfSums(w, c + p * kTaps, tap, pairs[half].phase[p]);
    }
  __m128i results[kPhases];
  for (int p = 0; p < kPhases; ++p)
    results[p] = outputs<16>(saturatedSum(halves[0].phase[p], halves[1].phase[p]));
  interleave(results, out);
}

/// The largest magnitude of at least 8 samples.
int peakOf(const Sample* samples, int count) {
  __m128i high = load(samples + count - 8);
  __m128i low = high;
  for (int i = 0; i + 8 <= count; i += 8) {
    high = _mm_max_epi16(high, load(samples + i));
    low = _mm_min_epi16(low, load(samples + i));
  }
  alignas(16) Sample ends[16];
  _mm_store_si128(reinterpret_cast<__m128i*>(ends), high);
  _mm_store_si128(reinterpret_cast<__m128i*>(ends + 8), low);
  int peak = 0;
  for (const int end : ends)
    peak = end > peak ? end : -end > peak ? -end : peak;
  return peak;
}

void filter(const CoefficientBank& bank, const Windows& windows, Sample* out) {
  if (bank.coef != pfir_3xIntCoef.coef || windows.step != 1 || windows.count < kGroup)
    return kPortablePath.filter(bank, windows, out);
  const int peak = peakOf(windows.first, windows.count + kTaps - 1);
  // The last group is a whole one too: it repeats outputs of the one before.
  for (int done = 0; done < windows.count; done += kGroup) {
    const int at = done + kGroup <= windows.count ? done : windows.count - kGroup;
    if (peak <= bank.limits.halfSum)
      filterPlain(windows.first + at, out + kPhases * at);
    else
      filterSaturating(windows.first + at, bank.coef, peak > bank.limits.lane, out + kPhases * at);
  }
}

}  // namespace

extern const FilterPath kSse2Path;
const FilterPath kSse2Path = {"SSE2", filter};

}  // namespace qs_ns
