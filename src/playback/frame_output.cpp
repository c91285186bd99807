#include "playback/frame_output.h"

#include <algorithm>
#include <cstdlib>

#include "core/interfaces/controller_base.h"
#include "core/interfaces/media_interface_base.h"
#include "dsp/pfir.h"

namespace qs_ns {

FrameOutput::FrameOutput(QS_ControllerBase& owner, StageTimes& requestTimes)
    : controller(owner), media(*owner.getMediaIF()), times(requestTimes) {
  if (pfir_upFilterState* state = controller.getFirUpState()) pfir_resetUpFilter(state);
}

void FrameOutput::playRamped(Frame frame, std::int16_t target) {
  ramp.apply(frame, scaled, target);
  play();
}

void FrameOutput::playScaled(Frame frame, std::int16_t gain) {
  std::transform(frame.begin(), frame.end(), scaled.begin(),
                 [gain](std::int16_t sample) { return scaleSample(gain, sample); });
  play();
}

void FrameOutput::playSilence() {
  scaled.fill(0);
  play();
}

void FrameOutput::play() {
  const std::int16_t* samples = scaled.data();
  std::uint16_t count = kFrameSamples;
  if (pfir_upFilterState* state = controller.getFirUpState()) {
    pfir_upFilter(state, scaled.data(), out.data(), kFrameSamples, &count);
    samples = out.data();
  }
  const unsigned bytes = count * static_cast<unsigned>(sizeof(std::int16_t));
  // A device that died was logged by the media layer; the text runs through to its end.
  media.playDataMsAudPlaybackSession(samples, bytes);
  if (!times.isNoted(Stage::firstAudible)) noteFirst(samples, count);
}

void FrameOutput::noteFirst(const std::int16_t* samples, std::size_t count) {
  constexpr int kAudible = 328;  // 1 % of full scale
  times.note(Stage::firstFrame);
  const bool audible = std::any_of(samples, samples + count,
                                   [](int sample) { return std::abs(sample) >= kAudible; });
  if (audible) times.note(Stage::firstAudible);
}

}  // namespace qs_ns
