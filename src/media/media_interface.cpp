#include "media/media_interface.h"

#include <syslog.h>

#include <chrono>
#include <cmath>
#include <limits>

#include "platform/clock.h"
#include "platform/media_server.h"

namespace qs_ns {

namespace {

// What the numbers mean is the media server's affair; these are the ones that it knows.
constexpr int kSpeechStream = 2;
constexpr int kOutputDevice = 7;
constexpr int kOutputPath = 10;
constexpr int kToneKind = 0;
constexpr int kAlertTone = 26;
constexpr int kToneMode = 1;

constexpr std::chrono::milliseconds kPauseAfterClose{20};

}  // namespace

QS_MediaInterface::~QS_MediaInterface() {
  cleanupMSInterface();
}

int QS_MediaInterface::cleanupMSInterface() {
  return ms_stop();
}

bool QS_MediaInterface::initializeMSInterface() {
  if (ms_start() < 0) {
    syslog(LOG_ERR, "Error while initializing MS interface");
    return false;
  }
  session = 0;
  volume = kInitialVolume;
  return true;
}

int QS_MediaInterface::setPathMsAudPlaybackSession() {
  ms_setOutputAudioPath(kOutputDevice, kOutputPath);
  return 0;
}

int QS_MediaInterface::startMsAudPlaybackSession() {
  if (session != 0) return 0;
  const int opened = ms_openAudPlayback(kSpeechStream);
  if (opened == 0) {
    syslog(LOG_ERR, "Error in starting audio playback session");
    return -5;
  }
  deathLogged = false;
  session = opened;
  syslog(LOG_DEBUG, "audio playback session started successfully");
  return 0;
}

int QS_MediaInterface::stopMsAudPlaybackSession() {
  if (session == 0) return 0;
  ms_closeAudPlayback(session);
  platform::clock().sleepFor(kPauseAfterClose);
  session = 0;
  syslog(LOG_DEBUG, "audio playback session stopped successfully");
  return 0;
}

int QS_MediaInterface::playDataMsAudPlaybackSession(const void* data, unsigned int bytes) {
  const std::int32_t open = session;
  const int result = ms_sendDataToAudPlayback(open, data, bytes);
  if (result < 0 && open != 0 && !deathLogged.exchange(true)) {
    syslog(LOG_ERR, "audio playback session lost (%d), the rest of it is not heard", result);
  }
  return result;
}

int QS_MediaInterface::getMsAudPlaybackSession() {
  return session;
}

void QS_MediaInterface::setVolume(int level) {
  constexpr double kLargest = std::numeric_limits<std::int32_t>::max();
  const double gain = std::pow(1.3, level - 2.0) * 512.0;
  volume = static_cast<std::int32_t>(gain < kLargest ? gain : kLargest);
}

int QS_MediaInterface::getVolume() {
  return volume;
}

int QS_MediaInterface::startMsTone(int) {
  const int tone = ms_createToneSession(kToneKind);
  if (tone < 0) return -1;
  int status = ms_realizeSession(tone);
  if (status >= 0) status = ms_allocateSession(tone);
  if (status >= 0) status = ms_startTone(tone, kAlertTone, kToneMode);
  return status < 0 ? status : tone;
}

int QS_MediaInterface::stopMsTone(int tone) {
  ms_stopSession(tone);
  return ms_closeSession(tone) < 0 ? -1 : 0;
}

int QS_MediaInterface::dropMsAudPlaybackSession() {
  return ms_dropAudPlayback(session);
}

}  // namespace qs_ns
