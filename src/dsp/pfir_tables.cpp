#include <algorithm>

#include "dsp/filter_path.h"
#include "dsp/pfir.h"

// Low-pass filters of unity gain in Q15, cut off at the lower rate's Nyquist frequency: flat to 0.8
// of it, 3 dB down at 0.904, and from 1.15 on down by 68 dB or more (interpolation by 2 and 6), 49
// (by 3), 66, 65 and 62 (decimation by 2, 3 and 6).
//
// An interpolation table holds the phases of one prototype h of factor x taps: coefficient k of
// phase p is h[factor * k + (factor - 1 - p)]. Symmetry of h makes phase p the reverse of phase
// factor - 1 - p, and so the whole table the mirror image of its first half.

namespace {

template <std::size_t half>
constexpr pfir_filterTable<2 * half> mirrored(std::int16_t factor, std::int16_t taps,
                                              const std::int16_t (&first)[half]) {
  pfir_filterTable<2 * half> table{{factor, taps, {}}, {}};
  std::copy_n(first, half, table.coef);
  std::reverse_copy(first, first + half, table.coef + half);
  return table;
}

}  // namespace

// 12 taps a row, so that four rows are a phase of 48.
// clang-format off

constinit const pfir_filterTable<96> pfir_2xIntCoef = mirrored<48>(2, 48, {
    -31, 32, -50, 62, -73, 73, -61, 29, 24, -103, 208, -336,
    482, -635, 782, -905, 983, -987, 882, -612, 71, 1016, -3787, 27602,
    11460, -5528, 3657, -2595, 1843, -1261, 797, -431, 150, 54, -189, 266,
    -296, 289, -258, 213, -163, 114, -71, 38, -12, 0, 10, -23});

// In full, since it is not quite a mirror image: taps 37 and 38 of phase 2 are 134 and -35, where
// the reverse of phase 0 has -35 and 134. Every request is heard through this table: leave them so.
constexpr pfir_filterTable<144> pfir_3xIntCoef = {{3, 48, {}}, {
    -19, 32, -49, 68, -85, 95, -93, 75, -33, 134, -35, -263,
    418, -595, 781, -961, 1116, -1222, 1247, -1143, 825, -72, -2056, 29013,
    8330, -4658, 3354, -2548, 1934, -1425, 995, -635, 342, -115, -50, 159,
    -219, 241, -232, 205, -166, 124, -85, 51, -25, 9, -3, -18,

    -39, 28, -31, 29, -18, -5, 43, -97, 166, -247, 335, -420,
    492, -536, 535, -470, 322, -64, -335, 928, -1824, 3304, -6415, 20677,
    20677, -6415, 3304, -1824, 928, -335, -64, 322, -470, 535, -536, 492,
    -420, 335, -247, 166, -97, 43, -5, -18, 29, -31, 28, -39,

    -18, -3, 9, -25, 51, -85, 124, -166, 205, -232, 241, -219,
    159, -50, -115, 342, -635, 995, -1425, 1934, -2548, 3354, -4658, 8330,
    29013, -2056, -72, 825, -1143, 1247, -1222, 1116, -961, 781, -595, 418,
    -263, 134, -35, -33, 75, -93, 95, -85, 68, -49, 32, -19}};

constinit const pfir_filterTable<288> pfir_6xIntCoef = mirrored<144>(6, 48, {
    -19, 29, -48, 70, -93, 112, -122, 117, -91, 37, 49, -171,
    330, -519, 734, -962, 1189, -1394, 1553, -1631, 1573, -1247, 73, 29880,
    5334, -3608, 2881, -2360, 1911, -1502, 1130, -796, 510, -273, 88, 45,
    -133, 179, -194, 185, -160, 127, -93, 61, -36, 17, -7, -4,
    -27, 34, -49, 63, -72, 73, -60, 29, 25, -103, 209, -337,
    482, -635, 782, -905, 984, -987, 881, -611, 71, 1016, -3788, 27603,
    11460, -5528, 3657, -2594, 1842, -1262, 798, -431, 150, 54, -189, 266,
    -296, 289, -259, 213, -163, 114, -72, 37, -13, -1, 7, -44,
    -30, 31, -39, 42, -38, 22, 10, -59, 127, -213, 311, -417,
    519, -603, 654, -651, 572, -389, 66, 454, -1289, 2739, -5967, 23362,
    17733, -6462, 3646, -2230, 1331, -703, 254, 61, -268, 388, -439, 438,
    -400, 339, -267, 195, -128, 72, -30, 2, 15, -21, 21, -27});

constinit const pfir_filterTable<96> pfir_2xDecCoef = mirrored<48>(2, 96, {
    -12, -15, 5, 16, 0, -25, -6, 31, 19, -36, -35, 36,
    57, -30, -81, 15, 107, 12, -129, -52, 145, 104, -148, -168,
    133, 241, -95, -317, 27, 391, 75, -452, -215, 491, 399, -494,
    -630, 441, 922, -306, -1297, 36, 1828, 508, -2764, -1894, 5730, 13801});

constinit const pfir_filterTable<144> pfir_3xDecCoef = mirrored<72>(3, 144, {
    -6, -13, -6, -1, 9, 11, 3, -10, -16, -8, 10, 23,
    17, -6, -28, -28, -2, 32, 41, 15, -31, -55, -32, 25,
    68, 55, -11, -77, -82, -12, 80, 112, 45, -73, -140, -88,
    53, 164, 140, -17, -179, -198, -38, 178, 260, 114, -157, -321,
    -212, 107, 372, 331, -21, -408, -475, -112, 416, 645, 310, -381,
    -849, -608, 275, 1117, 1101, -24, -1552, -2138, -685, 2777, 6892, 9671});

constinit const pfir_filterTable<288> pfir_6xDecCoef = mirrored<144>(6, 288, {
    0, -8, -5, -5, -5, -3, -1, 1, 4, 5, 6, 5,
    3, 0, -4, -7, -8, -8, -6, -2, 1, 7, 10, 12,
    10, 6, 0, -6, -12, -15, -15, -12, -5, 4, 13, 19,
    21, 19, 12, 2, -10, -21, -27, -27, -21, -10, 5, 20,
    30, 36, 32, 21, 4, -15, -32, -42, -44, -35, -17, 7,
    30, 48, 56, 51, 34, 8, -22, -49, -67, -70, -56, -29,
    7, 44, 73, 87, 80, 55, 15, -31, -73, -100, -105, -86,
    -45, 9, 65, 109, 131, 122, 85, 25, -45, -108, -151, -160,
    -133, -72, 10, 95, 164, 198, 188, 133, 42, -65, -164, -232,
    -250, -210, -117, 11, 147, 259, 318, 307, 222, 76, -102, -272,
    -393, -432, -372, -215, 12, 262, 480, 609, 608, 457, 169, -208,
    -601, -921, -1077, -995, -631, 12, 889, 1910, 2955, 3894, 4600, 4980});

// clang-format on

namespace {

constexpr int kNever = 48;

constexpr int expectedTap(int phase, int lane) {
  for (const auto& saturating : qs_ns::kSaturatingLanes)
    if (saturating.phase == phase && saturating.firstTap % 4 == lane) return saturating.firstTap;
  return kNever;
}

/// Is a lane of the factor-3 table driven one way, by samples of 32,768 and in the middle by
/// `kQuietCentre`, what `kSaturatingLanes` says? Undoubled, it saturates at 2^30.
constexpr bool isLaneAsExpected(int phase, int lane) {
  constexpr int kLimit = 1 << 30;
  int first = kNever;
  int reach = 0;
  int quietReach = 0;
  for (int tap = lane; tap < 48; tap += 4) {
    const int coef = pfir_3xIntCoef.coef[48 * phase + tap];
    const int weight = coef < 0 ? -coef : coef;
    reach += weight * 32768;
    quietReach += weight * (tap == 23 || tap == 24 ? qs_ns::kQuietCentre : 32768);
    if (first == kNever && reach >= kLimit) first = tap;
  }
  return first == expectedTap(phase, lane) && quietReach < kLimit;
}

constexpr bool areLanesAsExpected() {
  for (int i = 0; i < 12; ++i)
    if (!isLaneAsExpected(i / 4, i % 4)) return false;
  return true;
}
static_assert(areLanesAsExpected());

}  // namespace

const pfir_filterConfig* pfir_getUpFilterConfig(int factor) {
  switch (factor) {
    case 2:
      return &pfir_2xIntCoef.header;
    case 3:
      return &pfir_3xIntCoef.header;
    case 6:
      return &pfir_6xIntCoef.header;
    default:
      return nullptr;
  }
}

const pfir_filterConfig* pfir_getDnFilterConfig(int factor) {
  switch (factor) {
    case 2:
      return &pfir_2xDecCoef.header;
    case 3:
      return &pfir_3xDecCoef.header;
    case 6:
      return &pfir_6xDecCoef.header;
    default:
      return nullptr;
  }
}
