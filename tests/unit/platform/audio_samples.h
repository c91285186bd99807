#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "platform/audio/output.h"

namespace test {

using Samples = std::vector<std::int16_t>;

inline Samples ramp(std::size_t frames, std::int16_t first = 1) {
  Samples samples(frames);
  std::iota(samples.begin(), samples.end(), first);
  return samples;
}

/// The samples in a file's bytes from `offset` on.
inline Samples samplesFrom(const std::string& bytes, std::size_t offset) {
  if (bytes.size() <= offset) return {};
  Samples samples((bytes.size() - offset) / 2);
  std::memcpy(samples.data(), bytes.data() + offset, 2 * samples.size());
  return samples;
}

/// Opens, writes in steps and closes; what went wrong first, else 0.
inline int play(platform::audio::Output& output, const Samples& samples) {
  using platform::audio::kStepFrames;
  std::string why;
  int status = output.open(why);
  if (status < 0) return status;
  for (std::size_t done = 0; status >= 0 && done < samples.size(); done += kStepFrames)
    status = output.write(samples.data() + done, std::min(kStepFrames, samples.size() - done));
  return std::min(status, output.close());
}

}  // namespace test
