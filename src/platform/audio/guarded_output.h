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
/// Each stream has a device and a thread "QS_AudioDevice" of its own, which makes every call to the
/// device; the caller waits for the answer for at most a second. A thread that does not answer is
/// left behind with its device, and ends by itself should the device ever return. Until then the
/// device is tried again, on a fresh thread, only once every 5 s after a try that failed, and not
/// at all while three threads are left behind.
class GuardedOutput final : public Output {
 public:
  using DeviceFactory = std::function<std::unique_ptr<Output>()>;

  static constexpr std::chrono::seconds kPatience{1};
  static constexpr std::chrono::seconds kRetryInterval{5};
  static constexpr int kMostStuckThreads = 3;

  explicit GuardedOutput(DeviceFactory makeDevice);
  ~GuardedOutput() override;

  int open(std::string& why) override;
  int write(const std::int16_t* samples, std::size_t frames) override;
  int close() override;

 private:
  class Desk;

  bool mayTry() const;
  int openOnFreshThread(std::string& why);

  const DeviceFactory factory;
  // Shared with the threads left behind, which may outlive this object.
  const std::shared_ptr<std::atomic<int>> stuckThreads;
  std::shared_ptr<Desk> desk;  // of the stream that is open
  MonotonicTime nextTry{};
};

}  // namespace platform::audio
