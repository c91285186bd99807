#include "platform/audio/silence_skipper.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace platform::audio {

namespace {

// What is below is the rounding of the smallest volume, what is above is heard at any.
constexpr double kLeastLevel = 4;
constexpr double kMostLevel = 150;
constexpr double kAboveNoise = 3;
// More than a voice's at the largest volume.
constexpr double kMostNoise = 100;

}  // namespace

SilenceSkipper::SilenceSkipper(std::unique_ptr<Output> skippedTo) : output(std::move(skippedTo)) {}

int SilenceSkipper::open(std::string& why) {
  skipping = true;
  taken = inBlock = keptFrames = noiseFrames = 0;
  noiseEnergy = risenEnergy = 0;
  return output->open(why);
}

int SilenceSkipper::write(const std::int16_t* samples, std::size_t frames) {
  while (skipping && frames > 0) {
    const std::size_t used = fill(samples, frames);
    samples += used;
    frames -= used;
    if (const int status = takeBlock(); status < 0) return status;
  }
  return frames == 0 ? 0 : output->write(samples, frames);
}

std::size_t SilenceSkipper::fill(const std::int16_t* samples, std::size_t frames) {
  const std::size_t used = std::min(frames, kBlockFrames - inBlock);
  std::copy_n(samples, used, block.begin() + static_cast<std::ptrdiff_t>(inBlock));
  inBlock += used;
  return used;
}

int SilenceSkipper::takeBlock() {
  if (inBlock < kBlockFrames) return 0;
  taken += kBlockFrames;
  if (isSound() || taken > kMostFrames) return playKept();
  keepBlock();
  return 0;
}

bool SilenceSkipper::isSound() {
  double energy = 0;
  for (const double sample : block)
    energy += sample * sample;
  const double level = std::sqrt(energy / kBlockFrames);
  const bool risen =
      noiseFrames >= kNoiseFrames && level >= std::max(kAboveNoise * noiseLevel(), kLeastLevel);
  if (level >= kMostLevel || (risen && risenEnergy > 0)) return true;
  if (risen) {
    risenEnergy = energy;
    return false;
  }
  // One that rose by itself was noise as well.
  noiseFrames += risenEnergy > 0 ? 2 * kBlockFrames : kBlockFrames;
  noiseEnergy += energy + std::exchange(risenEnergy, 0);
  return taken == kNoiseFrames && noiseLevel() > kMostNoise;
}

double SilenceSkipper::noiseLevel() const {
  return noiseFrames == 0 ? 0 : std::sqrt(noiseEnergy / static_cast<double>(noiseFrames));
}

void SilenceSkipper::keepBlock() {
  const std::size_t most = taken < kNoiseFrames ? kNoiseFrames : kKeptFrames;
  const std::size_t excess = std::max(keptFrames + inBlock, most) - most;
  std::copy(kept.begin() + static_cast<std::ptrdiff_t>(excess),
            kept.begin() + static_cast<std::ptrdiff_t>(keptFrames), kept.begin());
  keptFrames -= excess;
  std::copy_n(block.begin(), inBlock, kept.begin() + static_cast<std::ptrdiff_t>(keptFrames));
  keptFrames += inBlock;
  inBlock = 0;
}

int SilenceSkipper::playKept() {
  skipping = false;
  int status = keptFrames == 0 ? 0 : output->write(kept.data(), keptFrames);
  if (status >= 0 && inBlock > 0) status = output->write(block.data(), inBlock);
  inBlock = keptFrames = 0;
  return status;
}

int SilenceSkipper::close() {
  const int status = skipping ? playKept() : 0;
  const int closed = output->close();
  return status < 0 ? status : closed;
}

}  // namespace platform::audio
