#include "platform/audio/guarded_output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/thread.h"

namespace platform::audio {

/// Where a caller and one device thread meet: the caller leaves an order, the thread an answer.
/// Both hold it, so that it lives until the later of them has gone.
class GuardedOutput::Desk {
 public:
  Desk(std::unique_ptr<Output> streamDevice, std::shared_ptr<std::atomic<int>> stuck)
      : stuckThreads(std::move(stuck)), device(std::move(streamDevice)) {}

  /// Starts the device thread, whose first act is to open the device: 0, or the negative errno
  /// value.
  static int startThread(std::shared_ptr<Desk> desk);

  // The caller's side: an order, and the wait for its answer (for the opening: the wait alone).
  void orderWrite(const std::int16_t* samples, std::size_t frames);
  void orderClose();
  /// The device's status. -ETIMEDOUT after kPatience, and at once ever after: the thread is left
  /// behind then.
  int awaitAnswer(std::string* why = nullptr);

 private:
  enum class Order { none, write, close };
  struct Step {
    std::array<std::int16_t, kStepFrames> samples;
    std::size_t frames;
  };

  void serve();
  Order awaitOrder(Step& received);
  bool answer(int result, std::string text = {});
  void leave(int result);
  void post(int result) REQUIRES(mutex);

  const std::shared_ptr<std::atomic<int>> stuckThreads;
  std::unique_ptr<Output> device;  // the device thread's alone

  Mutex mutex{true};
  Condition changed;
  Order order GUARDED_BY(mutex) = Order::none;
  Step step GUARDED_BY(mutex){};
  bool answered GUARDED_BY(mutex) = false;
  int status GUARDED_BY(mutex) = 0;
  std::string reason GUARDED_BY(mutex);
  bool abandoned GUARDED_BY(mutex) = false;
};

int GuardedOutput::Desk::startThread(std::shared_ptr<Desk> desk) {
  return startDetached("QS_AudioDevice", [share = std::move(desk)] { share->serve(); });
}

void GuardedOutput::Desk::serve() {
  std::string why;
  int result = device->open(why);
  bool streaming = answer(result, std::move(why)) && result >= 0;
  Step received{};
  while (streaming) {
    if (awaitOrder(received) == Order::write) {
      streaming = answer(device->write(received.samples.data(), received.frames));
    } else {
      result = device->close();
      streaming = false;
    }
  }
  // This may block as well, so it comes before the caller hears of the end.
  device.reset();
  leave(result);
}

GuardedOutput::Desk::Order GuardedOutput::Desk::awaitOrder(Step& received) {
  const MutexLock lock(mutex);
  while (order == Order::none)
    changed.wait(mutex);
  received = step;
  return std::exchange(order, Order::none);
}

/// False where nobody waits for the answer any more.
bool GuardedOutput::Desk::answer(int result, std::string text) {
  bool awaited = false;
  {
    const MutexLock lock(mutex);
    reason = std::move(text);
    post(result);
    awaited = !abandoned;
  }
  // Not under the lock, which the woken thread would only wait for.
  changed.notifyAll();
  return awaited;
}

void GuardedOutput::Desk::leave(int result) {
  {
    const MutexLock lock(mutex);
    post(result);
    if (abandoned) --*stuckThreads;
  }
  changed.notifyAll();
}

void GuardedOutput::Desk::post(int result) {
  status = result;
  answered = true;
}

void GuardedOutput::Desk::orderWrite(const std::int16_t* samples, std::size_t frames) {
  {
    const MutexLock lock(mutex);
    step.frames = std::min(frames, step.samples.size());
    std::copy_n(samples, step.frames, step.samples.begin());
    order = Order::write;
  }
  changed.notifyAll();
}

void GuardedOutput::Desk::orderClose() {
  {
    const MutexLock lock(mutex);
    order = Order::close;
  }
  changed.notifyAll();
}

int GuardedOutput::Desk::awaitAnswer(std::string* why) {
  const MonotonicTime deadline = clock().now() + kPatience;
  const MutexLock lock(mutex);
  while (!answered && !abandoned) {
    if (clock().waitUntil(changed, mutex, deadline) || answered) continue;
    abandoned = true;
    ++*stuckThreads;
  }
  if (abandoned) return -ETIMEDOUT;
  answered = false;
  if (why != nullptr) *why = std::move(reason);
  return status;
}

GuardedOutput::GuardedOutput(DeviceFactory makeDevice)
    : factory(std::move(makeDevice)), stuckThreads(std::make_shared<std::atomic<int>>(0)) {}

GuardedOutput::~GuardedOutput() {
  close();
}

bool GuardedOutput::mayTry() const {
  const int stuck = stuckThreads->load();
  return stuck == 0 || (stuck < kMostStuckThreads && clock().now() >= nextTry);
}

int GuardedOutput::open(std::string& why) {
  int status = -ETIMEDOUT;
  if (mayTry()) {
    status = openOnFreshThread(why);
    nextTry = clock().now() + (status < 0 ? kRetryInterval : std::chrono::seconds(0));
  }
  if (status == -ETIMEDOUT) why = "the device does not answer";
  return status;
}

int GuardedOutput::openOnFreshThread(std::string& why) {
  auto fresh = std::make_shared<Desk>(factory(), stuckThreads);
  int status = Desk::startThread(fresh);
  if (status < 0) {
    why = std::string("no thread for the device: ") + std::strerror(-status);
    return status;
  }
  status = fresh->awaitAnswer(&why);
  if (status >= 0) desk = std::move(fresh);
  return status;
}

int GuardedOutput::write(const std::int16_t* samples, std::size_t frames) {
  if (!desk) return -EBADF;
  desk->orderWrite(samples, frames);
  return desk->awaitAnswer();
}

int GuardedOutput::close() {
  if (!desk) return 0;
  desk->orderClose();
  const int status = desk->awaitAnswer();
  desk.reset();
  return status;
}

}  // namespace platform::audio
