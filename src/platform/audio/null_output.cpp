#include "platform/audio/null_output.h"

namespace platform::audio {

int NullOutput::open(std::string&) {
  pacer.restart();
  return 0;
}

int NullOutput::write(const std::int16_t*, std::size_t frames) {
  pacer.waitForRoom(frames, kDepthFrames);
  pacer.add(frames);
  return 0;
}

int NullOutput::close() {
  pacer.drain();
  return 0;
}

}  // namespace platform::audio
