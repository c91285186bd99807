#include "platform/audio/auto_output.h"

#include <syslog.h>

#include <utility>

namespace platform::audio {

AutoOutput::AutoOutput(std::string deviceName, std::unique_ptr<Output> deviceOutput,
                       std::unique_ptr<Output> nowhereOutput)
    : name(std::move(deviceName)),
      device(std::move(deviceOutput)),
      nowhere(std::move(nowhereOutput)),
      current(device.get()) {}

int AutoOutput::open(std::string& why) {
  if (deviceOpens()) return 0;
  return nowhere->open(why);
}

bool AutoOutput::deviceOpens() {
  const bool wasDevice = current == device.get();
  if (!wasDevice && clock().now() < nextTry) return false;
  std::string why;
  const bool opened = device->open(why) >= 0;
  current = opened ? device.get() : nowhere.get();
  if (!opened) nextTry = clock().now() + kRetryInterval;
  if (wasDevice && !opened) {
    syslog(LOG_WARNING, "audio: %s does not open, nothing will be heard: %s", name.c_str(),
           why.c_str());
  } else if (!wasDevice && opened) {
    syslog(LOG_WARNING, "audio: %s opens again, sound can be heard", name.c_str());
  }
  return opened;
}

int AutoOutput::write(const std::int16_t* samples, std::size_t frames) {
  return current->write(samples, frames);
}

int AutoOutput::close() {
  return current->close();
}

}  // namespace platform::audio
