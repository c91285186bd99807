#include "platform/media_server.h"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "platform/audio/line.h"
#include "platform/audio/registry.h"
#include "platform/audio/tone_player.h"
#include "platform/audio/tones.h"
#include "platform/environment.h"
#include "platform/mutex.h"

namespace {

using platform::MutexLock;
using platform::audio::Line;
using platform::audio::TonePlayer;

constexpr int kSpeechStream = 2;
constexpr unsigned int kBytesPerFrame = 2;

/// The state behind the functions. Its lock is never held around anything that may block.
class MediaServer {
 public:
  void start();
  void stop();
  /// The line to the output, null while stopped and where no output is to be had.
  std::shared_ptr<Line> line();

  /// The stream's handle, or 0.
  int openSpeech();

  int createTone();
  bool hasTone(int session);
  int startTone(int session, int index);
  int stopTone(int session);
  int closeTone(int session);

 private:
  using Tones = std::map<int, std::unique_ptr<TonePlayer>>;

  int keepTone(int session, std::unique_ptr<TonePlayer>& player);
  std::unique_ptr<TonePlayer> takePlayer(int session);

  platform::Mutex mutex{true};
  bool started GUARDED_BY(mutex) = false;
  std::string outputName GUARDED_BY(mutex);
  std::shared_ptr<Line> outputLine GUARDED_BY(mutex);
  Tones tones GUARDED_BY(mutex);  // the open sessions; null: silent
  int nextTone GUARDED_BY(mutex) = 0;
};

/// Null, with a line in the log, where `value` names no output.
std::shared_ptr<Line> makeLine(const std::string& value) {
  std::string why;
  auto output = platform::audio::makeOutput(value, why);
  if (output) return std::make_shared<Line>(value, std::move(output));
  syslog(LOG_ERR, "audio: QUILLSPEAK_AUDIO is \"%s\" (%s), nothing will be heard; valid are %s",
         value.c_str(), why.c_str(), platform::audio::kValidOutputs);
  return nullptr;
}

void MediaServer::start() {
  const std::string value = platform::environmentOr("QUILLSPEAK_AUDIO", "auto");
  {
    const MutexLock lock(mutex);
    // A line outlives a stop, so that a recording goes on in its file.
    started = outputLine && value == outputName;
    if (started) return;
  }
  std::shared_ptr<Line> made = makeLine(value);
  const MutexLock lock(mutex);
  started = true;
  outputName = value;
  std::swap(outputLine, made);
}

void MediaServer::stop() {
  Tones ended;
  std::shared_ptr<Line> used;
  {
    const MutexLock lock(mutex);
    started = false;
    std::swap(ended, tones);
    used = outputLine;
  }
  for (auto& [session, player] : ended) {
    if (player) player->stop();
  }
  if (used) used->closeAny();
}

std::shared_ptr<Line> MediaServer::line() {
  const MutexLock lock(mutex);
  return started ? outputLine : nullptr;
}

int MediaServer::openSpeech() {
  const std::shared_ptr<Line> used = line();
  const int handle = used ? used->open() : 0;
  if (handle <= 0) return 0;
  if (line() == used) return handle;
  // Stopped meanwhile: nobody else would close it.
  used->close(handle);
  return 0;
}

int MediaServer::createTone() {
  const MutexLock lock(mutex);
  const int session = nextTone;
  nextTone = nextTone == std::numeric_limits<int>::max() ? 0 : nextTone + 1;
  tones.try_emplace(session);
  return session;
}

bool MediaServer::hasTone(int session) {
  const MutexLock lock(mutex);
  return tones.count(session) != 0;
}

int MediaServer::startTone(int session, int index) {
  const platform::audio::Tone* tone = platform::audio::toneAt(index);
  if (tone == nullptr || !hasTone(session)) return -EINVAL;
  const std::shared_ptr<Line> used = line();
  if (!used) return -ENODEV;
  auto player = std::make_unique<TonePlayer>(used, *tone);
  if (const int status = player->start(); status < 0) return status;
  const int status = keepTone(session, player);
  if (player) player->stop();
  return status;
}

/// Leaves `player` with the caller where the session was closed meanwhile.
int MediaServer::keepTone(int session, std::unique_ptr<TonePlayer>& player) {
  const MutexLock lock(mutex);
  const auto found = tones.find(session);
  if (found == tones.end()) return -EINVAL;
  // A player of a tone that died may still be there.
  std::swap(found->second, player);
  return 0;
}

std::unique_ptr<TonePlayer> MediaServer::takePlayer(int session) {
  const MutexLock lock(mutex);
  const auto found = tones.find(session);
  return found != tones.end() ? std::move(found->second) : nullptr;
}

int MediaServer::stopTone(int session) {
  if (!hasTone(session)) return -EINVAL;
  const auto player = takePlayer(session);
  if (player) player->stop();
  return 0;
}

int MediaServer::closeTone(int session) {
  Tones::node_type closed;
  {
    const MutexLock lock(mutex);
    closed = tones.extract(session);
  }
  if (!closed) return -EINVAL;
  if (closed.mapped()) closed.mapped()->stop();
  return 0;
}

/// Never destroyed: a thread may still be in it when the process ends.
MediaServer& server() {
  static MediaServer& instance = *std::make_unique<MediaServer>().release();
  return instance;
}

}  // namespace

int ms_start() {
  server().start();
  return 0;
}

int ms_stop() {
  server().stop();
  return 0;
}

int ms_openAudPlayback(int stream) {
  return stream == kSpeechStream ? server().openSpeech() : 0;
}

int ms_sendDataToAudPlayback(int handle, const void* data, unsigned int bytes) {
  const std::shared_ptr<Line> line = server().line();
  if (!line || data == nullptr) return -EINVAL;
  constexpr unsigned int kMostBytes = std::numeric_limits<int>::max() - 1;
  const unsigned int frames = std::min(bytes, kMostBytes) / kBytesPerFrame;
  const int status = line->write(handle, static_cast<const std::int16_t*>(data), frames);
  return status < 0 ? status : static_cast<int>(frames * kBytesPerFrame);
}

int ms_closeAudPlayback(int handle) {
  const std::shared_ptr<Line> line = server().line();
  return line ? line->close(handle) : -EINVAL;
}

int ms_dropAudPlayback(int handle) {
  const std::shared_ptr<Line> line = server().line();
  return line ? line->drop(handle) : -EINVAL;
}

int ms_setOutputAudioPath(int, int) {
  // There is one path here.
  return 0;
}

int ms_createToneSession(int) {
  return server().createTone();
}

int ms_realizeSession(int session) {
  return server().hasTone(session) ? 0 : -EINVAL;
}

int ms_allocateSession(int session) {
  return server().hasTone(session) ? 0 : -EINVAL;
}

int ms_startTone(int session, int tone, int) {
  return server().startTone(session, tone);
}

int ms_stopSession(int session) {
  return server().stopTone(session);
}

int ms_closeSession(int session) {
  return server().closeTone(session);
}
