#include "platform/audio/guarded_output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/heap.h"
#include "platform/thread.h"

namespace platform::audio {

/// Where a caller and one device thread meet: the caller leaves an order, the thread an answer.
/// Both hold it, so that it lives until the later of them has gone.
class GuardedOutput::Desk {
 public:
  Desk(std::unique_ptr<Device> guarded, std::shared_ptr<std::atomic<int>> stuck)
      : stuckThreads(std::move(stuck)), device(std::move(guarded)) {}

  /// Starts the device thread, whose first act is to open the device: 0, or the negative errno
  /// value.
  static int startThread(std::shared_ptr<Desk> desk);

  // The caller's side: an order, and the wait for its answer (for the first opening: the wait
  // alone).
  /// False where the thread has gone.
  bool orderOpen();
  void orderWrite(const std::int16_t* samples, std::size_t frames);
  void orderClose() { leaveOrder(Order::close); }
  void orderEnd() { leaveOrder(Order::end); }
  /// The device's status. -ETIMEDOUT after kPatience, and at once ever after: the thread is left
  /// behind then.
  int awaitAnswer(std::string* why = nullptr);

  /// Any thread while a stream is open.
  void drop();

 private:
  enum class Order { none, open, write, close, drop, rest, release, end };
  struct Step {
    std::array<std::int16_t, kStepFrames> samples;
    std::size_t frames;
  };

  void leaveOrder(Order left);
  void serve();
  bool carryOut(Order order, const Step& received);
  Order awaitOrder(Step& received);
  bool waitForOrder(MonotonicTime deadline) REQUIRES(mutex);
  bool answer(int result, std::string text = {});
  bool endUnlessOrdered();
  void leave(int result);
  void post(int result) REQUIRES(mutex);

  const std::shared_ptr<std::atomic<int>> stuckThreads;
  std::unique_ptr<Device> device;  // the device thread's alone, but for `drop`
  bool streaming = true;           // device thread: between open and close?
  bool resting = false;            // device thread: was the device stopped since?
  MonotonicTime closedAt{};        // device thread
  int lastResult = 0;              // device thread: of the last opening

  Mutex mutex{true};
  Condition changed;
  Order order GUARDED_BY(mutex) = Order::open;
  Step step GUARDED_BY(mutex){};
  bool dropAsked GUARDED_BY(mutex) = false;
  bool answered GUARDED_BY(mutex) = false;
  int status GUARDED_BY(mutex) = 0;
  std::string reason GUARDED_BY(mutex);
  bool abandoned GUARDED_BY(mutex) = false;
  bool gone GUARDED_BY(mutex) = false;  // takes the thread no more orders?
};

int GuardedOutput::Desk::startThread(std::shared_ptr<Desk> desk) {
  return startDetached("QS_AudioDevice", [share = std::move(desk)] { share->serve(); });
}

void GuardedOutput::Desk::serve() {
  Step received{};
  while (carryOut(awaitOrder(received), received)) {
  }
  // This may block as well, so it comes before the caller hears of the end.
  device.reset();
  leave(lastResult);
  // Nothing has sounded for a while, unless it is a device that does not open.
  if (resting) trimHeap();
}

/// False where the thread has nothing more to do.
bool GuardedOutput::Desk::carryOut(Order ordered, const Step& received) {
  switch (ordered) {
    case Order::open: {
      std::string why;
      lastResult = device->open(why);
      streaming = lastResult >= 0;
      resting = false;
      return answer(lastResult, std::move(why)) && streaming;
    }
    case Order::write:
      return answer(device->write(received.samples.data(), received.frames));
    case Order::close: {
      const int result = device->close();
      streaming = resting = false;
      closedAt = clock().now();
      return answer(result);
    }
    case Order::drop:
      device->finishDrop();
      return true;
    case Order::rest:
      device->rest();
      resting = true;
      return true;
    case Order::release:
      device->release();
      return !endUnlessOrdered();
    case Order::none:
    case Order::end:
      break;
  }
  return false;
}

/// Between streams what is due to the device by then counts as an order too.
GuardedOutput::Desk::Order GuardedOutput::Desk::awaitOrder(Step& received) {
  const MutexLock lock(mutex);
  while (order == Order::none && !dropAsked) {
    if (streaming) {
      changed.wait(mutex);
    } else if (!waitForOrder(closedAt +
                             (resting ? std::chrono::milliseconds(kReleaseAfter) : kRestAfter))) {
      return resting ? Order::release : Order::rest;
    }
  }
  if (order == Order::none) {
    dropAsked = false;
    return Order::drop;
  }
  if (order == Order::write) received = step;
  return std::exchange(order, Order::none);
}

bool GuardedOutput::Desk::waitForOrder(MonotonicTime deadline) {
  return clock().waitUntil(changed, mutex, deadline) || order != Order::none;
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

/// An order that came while the device was given back is carried out.
bool GuardedOutput::Desk::endUnlessOrdered() {
  const MutexLock lock(mutex);
  gone = order == Order::none;
  return gone;
}

void GuardedOutput::Desk::leave(int result) {
  {
    const MutexLock lock(mutex);
    gone = true;
    post(result);
    if (abandoned) --*stuckThreads;
  }
  changed.notifyAll();
}

void GuardedOutput::Desk::post(int result) {
  status = result;
  answered = true;
}

bool GuardedOutput::Desk::orderOpen() {
  {
    const MutexLock lock(mutex);
    if (gone) return false;
    order = Order::open;
    dropAsked = false;
  }
  changed.notifyAll();
  return true;
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

void GuardedOutput::Desk::leaveOrder(Order left) {
  {
    const MutexLock lock(mutex);
    order = left;
  }
  changed.notifyAll();
}

// With the lock held, so that the device is there: a thread that is left behind takes it along.
void GuardedOutput::Desk::drop() {
  const MutexLock lock(mutex);
  if (abandoned || gone) return;
  device->drop();
  dropAsked = true;
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
  if (streaming) close();
  if (!desk) return;
  desk->orderEnd();
  desk->awaitAnswer();
}

bool GuardedOutput::mayTry() const {
  const int stuck = stuckThreads->load();
  return stuck == 0 || (stuck < kMostStuckThreads && clock().now() >= nextTry);
}

int GuardedOutput::open(std::string& why) {
  int status = -ETIMEDOUT;
  if (mayTry()) {
    // One that hung while nothing sounded says nothing about a fresh one.
    const bool onFreshThread = !desk || !desk->orderOpen();
    status = onFreshThread ? openOnFreshThread(why) : awaitOpen(why);
    const bool waits = status < 0 && onFreshThread;
    nextTry = clock().now() + (waits ? kRetryInterval : std::chrono::seconds(0));
  }
  if (status == -ETIMEDOUT) why = "the device does not answer";
  streaming = status >= 0;
  return status;
}

int GuardedOutput::awaitOpen(std::string& why) {
  const int status = desk->awaitAnswer(&why);
  if (status < 0) desk.reset();
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
  desk = status >= 0 ? std::move(fresh) : nullptr;
  return status;
}

int GuardedOutput::write(const std::int16_t* samples, std::size_t frames) {
  if (!streaming) return -EBADF;
  desk->orderWrite(samples, frames);
  return awaitStreamsAnswer();
}

/// As the desk's; a device that opened but does not answer in its stream counts as a failed try
/// where another thread is stuck already.
int GuardedOutput::awaitStreamsAnswer() {
  const int status = desk->awaitAnswer();
  if (status == -ETIMEDOUT && *stuckThreads > 1) nextTry = clock().now() + kRetryInterval;
  return status;
}

int GuardedOutput::close() {
  if (!streaming) return 0;
  streaming = false;
  desk->orderClose();
  const int status = awaitStreamsAnswer();
  // A thread that does not answer is left behind.
  if (status == -ETIMEDOUT) desk.reset();
  return status;
}

void GuardedOutput::drop() {
  if (desk) desk->drop();
}

}  // namespace platform::audio
