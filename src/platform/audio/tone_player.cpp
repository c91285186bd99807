#include "platform/audio/tone_player.h"

#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace platform::audio {

TonePlayer::TonePlayer(std::shared_ptr<Line> toneLine, const Tone& tone)
    : line(std::move(toneLine)), generator(tone) {}

int TonePlayer::start() {
  handle = line->open();
  if (handle < 0) return handle;
  const int status = run("QS_ToneThread", 0, 0);
  if (status < 0) line->close(handle);
  return status;
}

void TonePlayer::stop() {
  requestExit();
  join();
  line->close(handle);
}

bool TonePlayer::threadLoop() {
  generator.render(step.data(), step.size());
  const int status = line->write(handle, step.data(), step.size());
  if (status >= 0) return true;
  // A tone that cannot be heard must not keep speech from trying.
  if (line->close(handle) != -EBADF) {
    syslog(LOG_ERR, "audio: the tone ends, its output failed: %s", std::strerror(-status));
  }
  return false;
}

}  // namespace platform::audio
