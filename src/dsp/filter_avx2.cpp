#include <immintrin.h>

#include <cstring>

#include "dsp/filter_path.h"
#include "dsp/pfir.h"

#define ALWAYS_INLINE [[gnu::always_inline]] inline

// 16 windows at a time. Neighbouring products are added in pairs: samples from tap k of the first
// window on, against the coefficients of taps k and k + 1 in every pair, give what those two taps
// add to windows 0, 2, ... 14, and from one sample later on to windows 1, 3, ... 15. So each window
// has a 32-bit sum of its own, and nothing is shuffled before the outputs.

namespace qs_ns {
namespace {

using Sample = std::int16_t;

constexpr int kPhases = 3;
constexpr int kTaps = 48;
constexpr int kGroup = 16;

/// A sum for each window of a group: windows 0, 2, ... and windows 1, 3, ...
struct Sums {
  __m256i even;
  __m256i odd;
};

struct PhaseSums {
  Sums phase[kPhases];
};

__m256i load(const Sample* from) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from));
}

__m256i pairAt(const Sample* coef) {
  int both = 0;
  std::memcpy(&both, coef, sizeof both);
  return _mm256_set1_epi32(both);
}

Sums products(const Sample* samples, __m256i pair) {
  return {_mm256_madd_epi16(load(samples), pair), _mm256_madd_epi16(load(samples + 1), pair)};
}

/// Of tap `k` alone; a pair that began with tap 47 would reach beyond the last window.
Sums productsOfOne(const Sample* w, const Sample* c, int k) {
  const int coef = k % 2 == 0 ? static_cast<std::uint16_t>(c[k]) : c[k] * 65536;
  return products(w + k - k % 2, _mm256_set1_epi32(coef));
}

Sums sum(Sums a, Sums b) {
  return {_mm256_add_epi32(a.even, b.even), _mm256_add_epi32(a.odd, b.odd)};
}

__m256i saturatedSum(__m256i a, __m256i b) {
  const __m256i plain = _mm256_add_epi32(a, b);
  const __m256i overflow = _mm256_andnot_si256(_mm256_xor_si256(a, b), _mm256_xor_si256(a, plain));
  const __m256i limit = _mm256_xor_si256(_mm256_srai_epi32(a, 31), _mm256_set1_epi32(0x7fffffff));
  return _mm256_castps_si256(_mm256_blendv_ps(
      _mm256_castsi256_ps(plain), _mm256_castsi256_ps(limit), _mm256_castsi256_ps(overflow)));
}

Sums saturatedSum(Sums a, Sums b) {
  return {saturatedSum(a.even, b.even), saturatedSum(a.odd, b.odd)};
}

/// Of every `step`th pair of taps from tap `first` on: exact where the sums fit 32 bits.
ALWAYS_INLINE PhaseSums pairSums(const Sample* w, const Sample* c, int first, int step) {
  const Sums zero{_mm256_setzero_si256(), _mm256_setzero_si256()};
  PhaseSums sums{zero, zero, zero};
#pragma GCC unroll 4
  for (int k = first; k < kTaps; k += step)
    for (int p = 0; p < kPhases; ++p)
      sums.phase[p] = sum(sums.phase[p], products(w + k, pairAt(c + p * kTaps + k)));
  return sums;
}

/// A lane's undoubled sum, and the ends of the way that it took.
struct Way {
  __m256i sum;
  __m256i high;
  __m256i low;
};

Way onward(Way way, __m256i product) {
  const __m256i sum = _mm256_add_epi32(way.sum, product);
  return {sum, _mm256_max_epi32(way.high, sum), _mm256_min_epi32(way.low, sum)};
}

/// The half sum of a lane that may saturate and one, the rest of `pairs`, that does not. The lane
/// ends short of its plain sum by as much as the way to it went beyond the limit.
__m256i halfSum(Way way, __m256i pairs) {
  const __m256i zero = _mm256_setzero_si256();
  const __m256i limit = _mm256_set1_epi32(1 << 30);
  const __m256i above = _mm256_max_epi32(_mm256_sub_epi32(way.high, limit), zero);
  const __m256i below = _mm256_min_epi32(_mm256_add_epi32(way.low, limit), zero);
  const __m256i held = _mm256_sub_epi32(_mm256_sub_epi32(way.sum, above), below);
  // Doubled, the limit above is an odd number, and whatever follows it stays odd.
  const __m256i isBelowLimit = _mm256_cmpgt_epi32(limit, way.high);
  const __m256i odd = _mm256_andnot_si256(isBelowLimit, _mm256_set1_epi32(-1));
  const __m256i lane = _mm256_add_epi32(_mm256_add_epi32(held, held), odd);
  const __m256i rest = _mm256_sub_epi32(pairs, way.sum);
  return saturatedSum(lane, _mm256_add_epi32(rest, rest));
}

Sums halfSums(const Sample* w, const Sample* c, int firstTap, Sums pairs) {
  const __m256i zero = _mm256_setzero_si256();
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

/// 16 bits for each window of a group, in the order in which packing leaves them: in either half
/// the even windows, then the odd ones.
template <int shift>
__m256i outputs(Sums sums) {
  return _mm256_packs_epi32(_mm256_srai_epi32(sums.even, shift),
                            _mm256_srai_epi32(sums.odd, shift));
}

/// Writes the outputs of all phases, window after window.
ALWAYS_INLINE void interleave(const __m256i (&outputs)[kPhases], Sample* out) {
  // Output w of phase p goes to place 3 w + p, modulo the 8 of a vector's half: no two outputs of
  // a phase to the same, so that the vectors to be written are blends.
  alignas(16) static constexpr std::int8_t kPlaces[kPhases][16] = {
      {0, 1, 10, 11, 6, 7, 8, 9, 4, 5, 14, 15, 2, 3, 12, 13},
      {12, 13, 0, 1, 10, 11, 6, 7, 8, 9, 4, 5, 14, 15, 2, 3},
      {2, 3, 12, 13, 0, 1, 10, 11, 6, 7, 8, 9, 4, 5, 14, 15}};
  __m256i placed[kPhases];
  for (int p = 0; p < kPhases; ++p) {
    const auto* places = reinterpret_cast<const __m128i*>(kPlaces[p]);
    placed[p] = _mm256_shuffle_epi8(outputs[p], _mm256_broadcastsi128_si256(*places));
  }
  const auto [a, b, c] = placed;
  const __m256i written[kPhases] = {_mm256_blend_epi16(_mm256_blend_epi16(a, b, 0x92), c, 0x24),
                                    _mm256_blend_epi16(_mm256_blend_epi16(c, a, 0x92), b, 0x24),
                                    _mm256_blend_epi16(_mm256_blend_epi16(b, c, 0x92), a, 0x24)};
  auto* to = reinterpret_cast<__m128i*>(out);
  for (int i = 0; i < kPhases; ++i) {
    _mm_storeu_si128(to + i, _mm256_castsi256_si128(written[i]));
    _mm_storeu_si128(to + kPhases + i, _mm256_extracti128_si256(written[i], 1));
  }
}

/// Exact while no half sum saturates: the undoubled sum then fits 32 bits.
ALWAYS_INLINE void filterPlain(const Sample* w, const Sample* c, Sample* out) {
  const auto [sums] = pairSums(w, c, 0, 2);
  interleave({outputs<15>(sums[0]), outputs<15>(sums[1]), outputs<15>(sums[2])}, out);
}

bool isLouder(const Sample* samples, Sample limit) {
  const __m256i loud = _mm256_or_si256(
      _mm256_cmpgt_epi16(load(samples), _mm256_set1_epi16(limit)),
      _mm256_cmpgt_epi16(_mm256_set1_epi16(static_cast<Sample>(-limit)), load(samples)));
  return _mm256_movemask_epi8(loud) != 0;
}

/// Exact while no lane saturates, and else with `lanesToo`.
ALWAYS_INLINE void filterSaturating(const Sample* w, const Sample* c, bool lanesToo, Sample* out) {
  const PhaseSums pairs[] = {pairSums(w, c, 0, 4), pairSums(w, c, 2, 4)};
  PhaseSums halves[2];
  for (int half = 0; half < 2; ++half)
    for (int p = 0; p < kPhases; ++p)
      halves[half].phase[p] = saturatedSum(pairs[half].phase[p], pairs[half].phase[p]);
  if (lanesToo && (isLouder(w + 23, kQuietCentre) || isLouder(w + 24, kQuietCentre)))
    for (const auto& [p, tap] : kSaturatingLanes) {
      const int half = tap % 4 / 2;
      halves[half].phase[p] = halfSums(w, c + p * kTaps, tap, pairs[half].phase[p]);
    }
  __m256i results[kPhases];
  for (int p = 0; p < kPhases; ++p)
    results[p] = outputs<16>(saturatedSum(halves[0].phase[p], halves[1].phase[p]));
  interleave(results, out);
}

/// The largest magnitude of at least 16 samples.
int peakOf(const Sample* samples, int count) {
  __m256i peak = _mm256_abs_epi16(load(samples + count - 16));
  for (int i = 0; i + 16 <= count; i += 16)
    peak = _mm256_max_epu16(peak, _mm256_abs_epi16(load(samples + i)));
  const __m128i half =
      _mm_max_epu16(_mm256_castsi256_si128(peak), _mm256_extracti128_si256(peak, 1));
  const __m128i least = _mm_minpos_epu16(_mm_xor_si128(half, _mm_set1_epi16(-1)));
  return 65535 - _mm_extract_epi16(least, 0);
}

void filter(const CoefficientBank& bank, const Windows& windows, Sample* out) {
  if (bank.coef != pfir_3xIntCoef.coef || windows.step != 1 || windows.count < kGroup)
    return kPortablePath.filter(bank, windows, out);
  const int peak = peakOf(windows.first, windows.count + kTaps - 1);
  // The last group is a whole one too: it repeats outputs of the one before.
  for (int done = 0; done < windows.count; done += kGroup) {
    const int at = done + kGroup <= windows.count ? done : windows.count - kGroup;
    if (peak <= bank.limits.halfSum)
      filterPlain(windows.first + at, bank.coef, out + kPhases * at);
    else
      filterSaturating(windows.first + at, bank.coef, peak > bank.limits.lane, out + kPhases * at);
  }
}

}  // namespace

extern const FilterPath kAvx2Path;
const FilterPath kAvx2Path = {"AVX2", filter};

}  // namespace qs_ns
