#pragma once

#include "platform/audio/output.h"
#include "platform/audio/pacer.h"

namespace platform::audio {

/// Sound that goes nowhere in the time that it would take.
class NullOutput final : public Output {
 public:
  int open(std::string& why) override;
  int write(const std::int16_t* samples, std::size_t frames) override;
  int close() override;

 private:
  Pacer pacer;
};

}  // namespace platform::audio
