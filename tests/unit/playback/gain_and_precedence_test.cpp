#include <array>
#include <vector>

#include <gtest/gtest.h>

#include "playback/gain_ramp.h"
#include "playback/precedence.h"

namespace {

using qs_ns::GainRamp;
using qs_ns::kFrameSamples;

using Samples = std::array<std::int16_t, kFrameSamples>;

Samples constant(std::int16_t value) {
  Samples samples;
  samples.fill(value);
  return samples;
}

TEST(GainRamp, RisesFromSilenceAndSettlesJustBelowItsTarget) {
  GainRamp ramp;
  Samples out;
  // A sample of 1024 shows the gain itself.
  ramp.apply(constant(1024), out, 512);
  const std::vector<std::int16_t> beginning(out.begin(), out.begin() + 5);
  EXPECT_EQ(beginning, (std::vector<std::int16_t>{0, 50, 95, 135, 171}));
  EXPECT_EQ(out[49], 502);
  EXPECT_EQ(ramp.gain(), 502);
  ramp.apply(constant(32767), out, 512);
  EXPECT_EQ(out[0], 16064);
}

TEST(GainRamp, FadesToExactlyNothing) {
  GainRamp ramp;
  Samples out;
  ramp.apply(constant(1024), out, 26207);
  ramp.apply(constant(1024), out, 26207);
  ramp.apply(constant(1024), out, 0);
  EXPECT_EQ(ramp.gain(), 0);
  EXPECT_EQ(out[kFrameSamples - 1], 0);
}

TEST(GainRamp, ClampsAndRounds) {
  EXPECT_EQ(qs_ns::scaleSample(26207, 32767), 32767);
  EXPECT_EQ(qs_ns::scaleSample(26207, -32768), -32768);
  EXPECT_EQ(qs_ns::scaleSample(512, 1), 1);
  EXPECT_EQ(qs_ns::scaleSample(511, 1), 0);
  EXPECT_EQ(qs_ns::scaleSample(512, -1), 0);
  EXPECT_EQ(qs_ns::scaleSample(-512, 2), -1);
}

TEST(Precedence, FollowsTheTable) {
  constexpr bool kGivesWay[4][4] = {{true, false, true, true},
                                    {true, true, true, true},
                                    {false, false, false, false},
                                    {false, false, false, false}};
  for (int existing = 0; existing < 4; ++existing) {
    for (int newer = 0; newer < 4; ++newer) {
      EXPECT_EQ(qs_ns::givesWay(existing, newer), kGivesWay[existing][newer])
          << existing << " against " << newer;
      EXPECT_EQ(qs_ns::givesWay(existing | 0xC, newer | 0x7FFFFFF4), kGivesWay[existing][newer])
          << "other bits count for nothing";
    }
  }
}

}  // namespace
