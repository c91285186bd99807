#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace test {

using Samples = std::vector<std::int16_t>;

/// The samples in a file's bytes from `offset` on.
inline Samples samplesFrom(const std::string& bytes, std::size_t offset) {
  if (bytes.size() <= offset) return {};
  Samples samples((bytes.size() - offset) / 2);
  std::memcpy(samples.data(), bytes.data() + offset, 2 * samples.size());
  return samples;
}

}  // namespace test
