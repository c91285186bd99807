#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

#include "platform/audio/output.h"
#include "platform/clock.h"

namespace platform::audio {

/// Keeps a device that may block for ever away from its callers.
///
/// A device has a thread "QS_AudioDevice" of its own, which makes every call to it; the caller
/// waits for the answer for at most a second. Between streams the device stays open, at rest after
/// half a second; after 5 s it is given back and its thread ends. A thread that does not answer is
/// left behind with its device, and ends by itself should the device ever return. Until then the
/// device is tried again, on a fresh thread, only once every 5 s after a try that failed or a
/// second stream that hung, and not at all while three threads are left behind.
class GuardedOutput final : public Output {
 public:
  using DeviceFactory = std::function<std::unique_ptr<Device>()>;

  /// A sound server's buffers are empty by then, and whoever answers a result has spoken again.
  static constexpr std::chrono::milliseconds kRestAfter{500};
  static constexpr std::chrono::seconds kReleaseAfter{5};
  static constexpr std::chrono::seconds kPatience{1};
  static constexpr std::chrono::seconds kRetryInterval{5};
  static constexpr int kMostStuckThreads = 3;

  explicit GuardedOutput(DeviceFactory makeDevice);
  ~GuardedOutput() override;

  int open(std::string& why) override;
  int write(const std::int16_t* samples, std::size_t frames) override;
  int close() override;
  /// Not during `open` or `close`.
  void drop() override;

 private:
  class Desk;

  bool mayTry() const;
  int awaitOpen(std::string& why);
  int openOnFreshThread(std::string& why);
  int awaitStreamsAnswer();

  const DeviceFactory factory;
  // Shared with the threads left behind, which may outlive this object.
  const std::shared_ptr<std::atomic<int>> stuckThreads;
  std::shared_ptr<Desk> desk;  // of the last device that opened; null where it was given up
  bool streaming = false;      // between open and close?
  MonotonicTime nextTry{};
};

}  // namespace platform::audio
