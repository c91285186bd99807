#pragma once

#include <array>
#include <memory>

#include "platform/audio/output.h"

namespace platform::audio {

/// Leaves out the silence with which a stream begins, so that its sound comes at once: a voice says
/// nothing for 100 to 230 ms. Up to 300 ms are taken and not played, but for the last 10 before the
/// sound is certain.
///
/// That is where it has risen three times above the stream's own noise for a second step of 5 ms
/// (one is kept, and noise may rise that far by chance), or at once where it is loud. The voice's
/// noise is an RMS of 8 with steps of up to 18 at normal volume, five times that at the largest and
/// a sixth at the smallest; its softest consonant ("thirty") begins at 23. A stream that is louder
/// than any such noise for its first 40 ms has begun with sound, of which nothing is left out.
class SilenceSkipper final : public Output {
 public:
  explicit SilenceSkipper(std::unique_ptr<Output> skippedTo);

  int open(std::string& why) override;
  int write(const std::int16_t* samples, std::size_t frames) override;
  int close() override;
  void drop() override { output->drop(); }

 private:
  static constexpr std::size_t kBlockFrames = 240;
  static constexpr std::size_t kKeptFrames = 480;
  static constexpr std::size_t kMostFrames = 14400;
  // 40 ms. Before, too little of the noise is known, and all is kept.
  static constexpr std::size_t kNoiseFrames = 1920;
  using Block = std::array<std::int16_t, kBlockFrames>;

  std::size_t fill(const std::int16_t* samples, std::size_t frames);
  int takeBlock();
  bool isSound();
  double noiseLevel() const;
  void keepBlock();
  int playKept();

  const std::unique_ptr<Output> output;
  bool skipping = false;
  std::size_t taken = 0;        // since the stream began
  double noiseEnergy = 0;       // of the quiet blocks, in squares of samples
  std::size_t noiseFrames = 0;  // in them
  double risenEnergy = 0;       // of the block before, where it rose above the noise
  Block block{};
  std::size_t inBlock = 0;
  std::array<std::int16_t, kNoiseFrames> kept{};
  std::size_t keptFrames = 0;
};

}  // namespace platform::audio
