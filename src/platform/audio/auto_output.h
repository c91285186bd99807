#pragma once

#include <chrono>
#include <memory>

#include "platform/audio/output.h"
#include "platform/clock.h"

namespace platform::audio {

/// A device where it opens, else nowhere in real time, so that a machine without sound works on and
/// one whose sound comes late is heard. The choice is made anew at every open; while it falls on
/// nowhere the device is tried at most every 5 s. Logs a warning at each change.
class AutoOutput final : public Output {
 public:
  static constexpr std::chrono::seconds kRetryInterval{5};

  /// `deviceName` is what the log calls the device.
  AutoOutput(std::string deviceName, std::unique_ptr<Output> deviceOutput,
             std::unique_ptr<Output> nowhereOutput);

  int open(std::string& why) override;
  int write(const std::int16_t* samples, std::size_t frames) override;
  int close() override;
  /// Not during `open`.
  void drop() override { current->drop(); }

 private:
  bool deviceOpens();

  const std::string name;
  const std::unique_ptr<Output> device;
  const std::unique_ptr<Output> nowhere;
  Output* current;
  MonotonicTime nextTry{};  // while `nowhere` is current
};

}  // namespace platform::audio
