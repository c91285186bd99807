#pragma once

#include <cstddef>
#include <cstdint>

namespace platform::audio {

/// One row of the table of tones: one or two sine waves, sounding for `onMs`, silent for `offMs`,
/// and so on. One without a break has an `offMs` of 0 and sounds for 1,000 ms at a time, which
/// waves of whole Hz fill exactly.
struct Tone {
  const char* name;
  std::uint16_t firstHz;
  std::uint16_t secondHz;  // 0: there is no second wave
  std::int8_t levelDb;     // peak of each wave, relative to full scale
  std::uint16_t onMs;
  std::uint16_t offMs;
};

/// Tones have the indices 0 to kToneCount - 1. Which is which:
///
///  0 to 9   the digits 0 to 9 of a telephone's keys (DTMF)
///  10, 11   * and #
///  12 to 15 A to D
///  16       dial tone                22  confirmation           29  European ringing
///  17       ringing (what is heard   23  intercept              30  European busy
///           while the other          24  receiver off the hook  31  European congestion
///           telephone rings)         25  busy line verified     32  level test, 1,004 Hz
///  18       busy                     26  alert                  33  low beep
///  19       error (all lines busy)   27  message waiting        34  key beep
///  20       call waiting             28  European dial tone
///  21       recall dial tone
inline constexpr int kToneCount = 35;

/// The row of `index`, or null outside the table.
const Tone* toneAt(int index);

/// Computes the samples of a tone, from its beginning and without an end.
class ToneGenerator {
 public:
  explicit ToneGenerator(const Tone& row);
  void render(std::int16_t* samples, std::size_t frames);

 private:
  std::int16_t nextSample();

  const Tone& tone;
  const double amplitude;
  const std::uint32_t onFrames;
  const std::uint32_t cycleFrames;
  std::uint32_t frameInCycle = 0;
};

}  // namespace platform::audio
