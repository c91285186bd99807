#include "dbus/convert_tts_thread.h"

#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "platform/clock.h"
#include "tts/speech_engine.h"

namespace qs_ns {

namespace {
// As the speech engine says it.
constexpr int kNotSynthesised = -2;
}  // namespace

void ConversionLine::enter(const QS_ConvertTTSThread* conversion) {
  const platform::MutexLock hold(mutex);
  line.push_back(conversion);
}

void ConversionLine::pause(const QS_ConvertTTSThread* conversion,
                           std::chrono::nanoseconds duration) {
  platform::Clock& clock = platform::clock();
  const platform::MonotonicTime end = clock.now() + duration;
  const platform::MutexLock hold(mutex);
  while (!conversion->isStopped() && clock.now() < end)
    clock.waitUntil(moved, mutex, end);
}

bool ConversionLine::waitForTurn(const QS_ConvertTTSThread* conversion) {
  const platform::MutexLock hold(mutex);
  while (line.front() != conversion && !conversion->isStopped())
    moved.wait(mutex);
  return !conversion->isStopped();
}

void ConversionLine::leave(const QS_ConvertTTSThread* conversion) {
  const platform::MutexLock hold(mutex);
  line.erase(std::remove(line.begin(), line.end(), conversion), line.end());
  moved.notifyAll();
}

void ConversionLine::wake() {
  const platform::MutexLock hold(mutex);
  moved.notifyAll();
}

QS_ConvertTTSThread::QS_ConvertTTSThread(DBus::Tag* tag, std::string toConvert,
                                         std::string filePath, ConversionCallback callback,
                                         ConversionLine& order)
    : callTag(tag),
      text(std::move(toConvert)),
      path(std::move(filePath)),
      finished(std::move(callback)),
      turns(order) {
  turns.enter(this);
}

QS_ConvertTTSThread::~QS_ConvertTTSThread() {
  turns.leave(this);
}

void QS_ConvertTTSThread::stop() {
  stopped = true;
  turns.wake();
  voiceMutex.wake();
}

bool QS_ConvertTTSThread::threadLoop() {
  turns.pause(this, std::chrono::milliseconds(50));
  syslog(LOG_NOTICE, "QS_ConvertTTSThread: threadloop started");
  FliteConversionResponse response{callTag, kNotSynthesised, true};
  if (turns.waitForTurn(this)) {
    response.result = qs_flite_tts_file(text, path, 0, &stopped);
    if (response.result != 0) syslog(LOG_NOTICE, "Error in TTS: %d", response.result);
    response.stopped = response.result != 0 && stopped;
  }
  // In this order, so that answers come in the order in which conversions finish.
  if (finished != nullptr) finished->call(response);
  turns.leave(this);
  requestExit();
  ended = true;
  return false;
}

}  // namespace qs_ns
