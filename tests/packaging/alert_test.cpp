#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <numbers>
#include <vector>

#include <gtest/gtest.h>

#include "support/scratch_folder.h"

namespace {

using Samples = std::vector<std::int16_t>;

double strength(const Samples& sound, std::size_t first, std::size_t last, double hertz) {
  double real = 0;
  double imaginary = 0;
  for (std::size_t i = first; i < last; ++i) {
    const double angle = 2 * std::numbers::pi * hertz * static_cast<double>(i) / 16000;
    real += sound[i] * std::cos(angle);
    imaginary += sound[i] * std::sin(angle);
  }
  return std::hypot(real, imaginary);
}

TEST(Alert, IsShortAndSoftAndFallsWithoutAClick) {
  const std::string file = test::readFile(QS_ALERT);
  Samples sound(file.size() / 2);
  std::memcpy(sound.data(), file.data(), sound.size() * 2);
  ASSERT_GT(sound.size(), 16000U / 5);
  EXPECT_LT(sound.size(), 16000U / 2);
  const auto [lowest, highest] = std::minmax_element(sound.begin(), sound.end());
  EXPECT_GT(*highest, 3000);
  EXPECT_LT(*highest, 8000);
  EXPECT_GT(*lowest, -8000);
  for (std::size_t i = 0; i < 16; ++i) {
    EXPECT_LT(std::abs(sound[i]), 200);
    EXPECT_LT(std::abs(sound[sound.size() - 1 - i]), 200);
  }
  // No step is larger than that of its higher tone at full level.
  for (std::size_t i = 1; i < sound.size(); ++i)
    ASSERT_LT(std::abs(sound[i] - sound[i - 1]), 1700) << i;
  EXPECT_GT(strength(sound, 0, 2000, 660), 3 * strength(sound, 0, 2000, 440));
  EXPECT_GT(strength(sound, 2500, 5000, 440), 3 * strength(sound, 2500, 5000, 660));
}

}  // namespace
