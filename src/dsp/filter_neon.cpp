#include <arm_neon.h>

#include "dsp/filter_path.h"
#include "dsp/pfir.h"

// The definition itself in a vector unit that saturates: four windows at a time, a vector of sums
// for each of the definition's lanes. Loudness makes no difference.

namespace qs_ns {
namespace {

using Sample = std::int16_t;

constexpr int kPhases = 3;
constexpr int kTaps = 48;
constexpr int kGroup = 4;

/// The four lanes of one phase, each for the windows of a group.
struct Lanes {
  int32x4_t sum[4];
};

void addFourTaps(Lanes& lanes, const int16x4_t (&w)[4], int16x4_t c) {
  lanes.sum[0] = vqdmlal_lane_s16(lanes.sum[0], w[0], c, 0);
  lanes.sum[1] = vqdmlal_lane_s16(lanes.sum[1], w[1], c, 1);
  lanes.sum[2] = vqdmlal_lane_s16(lanes.sum[2], w[2], c, 2);
  lanes.sum[3] = vqdmlal_lane_s16(lanes.sum[3], w[3], c, 3);
}

int16x4_t output(const Lanes& lanes) {
  const int32x4_t first = vqaddq_s32(lanes.sum[0], lanes.sum[1]);
  const int32x4_t second = vqaddq_s32(lanes.sum[2], lanes.sum[3]);
  return vshrn_n_s32(vqaddq_s32(first, second), 16);
}

void filterGroup(const Sample* first, const Sample* c, Sample* out) {
  Lanes phase[kPhases];
  for (Lanes& lanes : phase)
    for (int32x4_t& sum : lanes.sum)
      sum = vdupq_n_s32(0);
  for (int k = 0; k < kTaps; k += 4) {
    const int16x4_t w[4] = {vld1_s16(first + k), vld1_s16(first + k + 1), vld1_s16(first + k + 2),
                            vld1_s16(first + k + 3)};
    for (int p = 0; p < kPhases; ++p)
      addFourTaps(phase[p], w, vld1_s16(c + p * kTaps + k));
  }
  const int16x4x3_t outputs = {{output(phase[0]), output(phase[1]), output(phase[2])}};
  vst3_s16(out, outputs);
}

void filter(const CoefficientBank& bank, const Windows& windows, Sample* out) {
  if (bank.coef != pfir_3xIntCoef.coef || windows.step != 1 || windows.count < kGroup)
    return kPortablePath.filter(bank, windows, out);
  // The last group is a whole one too: it repeats outputs of the one before.
  for (int done = 0; done < windows.count; done += kGroup) {
    const int at = done + kGroup <= windows.count ? done : windows.count - kGroup;
    filterGroup(windows.first + at, bank.coef, out + kPhases * at);
  }
}

}  // namespace

extern const FilterPath kNeonPath;
const FilterPath kNeonPath = {"NEON", filter};

}  // namespace qs_ns
