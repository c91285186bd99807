#pragma once

#include "latency_recorder.h"

namespace bench {

/// Where a known sound lies in a recording, and how like it is: the normalised correlation, 1 for
/// the same shape at any loudness. Speech that is synthesised anew differs by its noise alone and
/// stays above 0.9; other words reach some 0.4.
struct Match {
  std::size_t index = 0;
  double likeness = -1;
};

inline constexpr double kLikeEnough = 0.8;

/// The best match, to within 4 frames (0.08 ms). The recording is longer than the known sound.
Match findSound(const Recording& in, const std::vector<std::int16_t>& known);

/// From the first to the last audible sample. Throws where there is none.
std::vector<std::int16_t> audiblePart(const Recording& recording);

}  // namespace bench
