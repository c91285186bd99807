#include "platform/audio/tones.h"

#include <array>
#include <cmath>
#include <numbers>

#include "platform/audio/output.h"

namespace platform::audio {

namespace {

constexpr std::array<Tone, kToneCount> kTones{{
    {"0", 941, 1336, -12, 1000, 0},
    {"1", 697, 1209, -12, 1000, 0},
    {"2", 697, 1336, -12, 1000, 0},
    {"3", 697, 1477, -12, 1000, 0},
    {"4", 770, 1209, -12, 1000, 0},
    {"5", 770, 1336, -12, 1000, 0},
    {"6", 770, 1477, -12, 1000, 0},
    {"7", 852, 1209, -12, 1000, 0},
    {"8", 852, 1336, -12, 1000, 0},
    {"9", 852, 1477, -12, 1000, 0},
    {"*", 941, 1209, -12, 1000, 0},
    {"#", 941, 1477, -12, 1000, 0},
    {"A", 697, 1633, -12, 1000, 0},
    {"B", 770, 1633, -12, 1000, 0},
    {"C", 852, 1633, -12, 1000, 0},
    {"D", 941, 1633, -12, 1000, 0},
    {"dial tone", 350, 440, -18, 1000, 0},
    {"ringing", 440, 480, -18, 2000, 4000},
    {"busy", 480, 620, -18, 500, 500},
    {"error", 480, 620, -18, 250, 250},
    {"call waiting", 440, 0, -18, 300, 9700},
    {"recall dial tone", 350, 440, -18, 100, 100},
    {"confirmation", 350, 440, -18, 300, 100},
    {"intercept", 440, 620, -18, 250, 250},
    {"receiver off the hook", 1400, 2060, -9, 100, 100},
    {"busy line verified", 440, 0, -18, 1500, 8500},
    {"alert", 880, 1320, -12, 150, 850},
    {"message waiting", 350, 440, -18, 800, 200},
    {"European dial tone", 425, 0, -18, 1000, 0},
    {"European ringing", 425, 0, -18, 1000, 4000},
    {"European busy", 425, 0, -18, 500, 500},
    {"European congestion", 425, 0, -18, 250, 250},
    {"level test", 1004, 0, -18, 1000, 0},
    {"low beep", 330, 0, -15, 200, 1800},
    {"key beep", 1000, 0, -21, 50, 950},
}};

constexpr double kFullScale = 32767.0;

constexpr std::uint32_t framesOf(std::uint32_t milliseconds) {
  return milliseconds * (kFramesPerSecond / 1000);
}

double sineAt(std::uint16_t hertz, std::uint32_t frame) {
  return std::sin(2.0 * std::numbers::pi * hertz * frame / kFramesPerSecond);
}

}  // namespace

const Tone* toneAt(int index) {
  if (index < 0 || index >= kToneCount) return nullptr;
  return &kTones[static_cast<std::size_t>(index)];
}

ToneGenerator::ToneGenerator(const Tone& row)
    : tone(row),
      amplitude(kFullScale * std::pow(10.0, row.levelDb / 20.0)),
      onFrames(framesOf(row.onMs)),
      cycleFrames(onFrames + framesOf(row.offMs)) {}

void ToneGenerator::render(std::int16_t* samples, std::size_t frames) {
  for (std::size_t i = 0; i < frames; ++i)
    samples[i] = nextSample();
}

std::int16_t ToneGenerator::nextSample() {
  const std::uint32_t frame = frameInCycle;
  frameInCycle = frame + 1 == cycleFrames ? 0 : frame + 1;
  if (frame >= onFrames) return 0;
  double sum = sineAt(tone.firstHz, frame);
  if (tone.secondHz != 0) sum += sineAt(tone.secondHz, frame);
  return static_cast<std::int16_t>(std::lrint(amplitude * sum));
}

}  // namespace platform::audio
