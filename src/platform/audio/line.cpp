#include "platform/audio/line.h"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

namespace platform::audio {

Line::Line(std::string outputName, std::unique_ptr<Output> lineOutput)
    : name(std::move(outputName)), output(std::move(lineOutput)) {}

int Line::open() {
  {
    const MutexLock lock(mutex);
    if (taken) return -EBUSY;
    taken = true;
    calling = true;
  }
  std::string why;
  const int result = output->open(why);
  return finishOpen(result, why);
}

int Line::finishOpen(int result, const std::string& why) {
  const MutexLock lock(mutex);
  calling = false;
  callEnded.notifyAll();
  status = 0;
  reportOpen(result, why);
  taken = result >= 0;
  current = taken ? nextHandle() : 0;
  return taken ? current : result;
}

int Line::nextHandle() {
  lastHandle = lastHandle == std::numeric_limits<int>::max() ? 1 : lastHandle + 1;
  return lastHandle;
}

void Line::reportOpen(int result, const std::string& why) {
  if (result >= 0) {
    reported.clear();
  } else if (why != reported) {
    syslog(LOG_ERR, "audio: %s does not open: %s", name.c_str(), why.c_str());
    reported = why;
  }
}

int Line::write(int handle, const std::int16_t* samples, std::size_t frames) {
  while (frames > 0) {
    const std::size_t step = std::min(frames, kStepFrames);
    if (const int refused = beginCall(handle); refused < 0) return refused;
    const int result = output->write(samples, step);
    endCall(result);
    if (result < 0) return result;
    samples += step;
    frames -= step;
  }
  return 0;
}

int Line::beginCall(int handle) {
  const MutexLock lock(mutex);
  if (handle != current || handle == 0) return -EBADF;
  if (status < 0) return status;
  if (calling) return -EBUSY;
  calling = true;
  return 0;
}

void Line::endCall(int result) {
  const MutexLock lock(mutex);
  calling = false;
  status = std::min(result, 0);
  callEnded.notifyAll();
}

int Line::close(int handle) {
  {
    const MutexLock lock(mutex);
    if (handle != current || handle == 0) return -EBADF;
    current = 0;
    while (calling)
      callEnded.wait(mutex);
    calling = true;
  }
  const int result = output->close();
  const MutexLock lock(mutex);
  calling = false;
  taken = false;
  callEnded.notifyAll();
  return result;
}

// With the lock held, so that no open or close of the output runs beside it.
int Line::drop(int handle) {
  const MutexLock lock(mutex);
  if (handle != current || handle == 0) return -EBADF;
  output->drop();
  return 0;
}

void Line::closeAny() {
  int handle = 0;
  {
    const MutexLock lock(mutex);
    // Another thread is opening or closing it.
    while (taken && current == 0)
      callEnded.wait(mutex);
    handle = current;
  }
  if (handle != 0) close(handle);
}

}  // namespace platform::audio
