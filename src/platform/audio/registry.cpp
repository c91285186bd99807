#include "platform/audio/registry.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "platform/audio/alsa_output.h"
#include "platform/audio/auto_output.h"
#include "platform/audio/guarded_output.h"
#include "platform/audio/null_output.h"
#include "platform/audio/silence_skipper.h"
#include "platform/audio/wav_output.h"

namespace platform::audio {

namespace {

using OutputPointer = std::unique_ptr<Output>;

OutputPointer makeGuarded(const std::string& pcm) {
  const auto depth = std::make_shared<SoundDepth>();
  return std::make_unique<GuardedOutput>(
      [pcm, depth] { return std::make_unique<AlsaOutput>(pcm, depth); });
}

OutputPointer makeAlsa(const std::string& argument, std::string&) {
  return std::make_unique<SilenceSkipper>(makeGuarded(argument.empty() ? "default" : argument));
}

OutputPointer makeWav(const std::string& path, std::string& why) {
  const int status = WavOutput::checkWritable(path);
  if (status < 0) why = path + ": " + std::strerror(-status);
  return status < 0 ? nullptr : std::make_unique<WavOutput>(path);
}

OutputPointer makeNull(const std::string&, std::string&) {
  return std::make_unique<NullOutput>();
}

OutputPointer makeAuto(const std::string&, std::string& why) {
  return std::make_unique<SilenceSkipper>(
      std::make_unique<AutoOutput>("alsa:default", makeGuarded("default"), makeNull({}, why)));
}

struct Kind {
  std::string_view name;  // with its colon where an argument follows
  OutputPointer (*make)(const std::string& argument, std::string& why);
};

constexpr std::array kKinds{Kind{"alsa:", makeAlsa}, Kind{"wav:", makeWav}, Kind{"null", makeNull},
                            Kind{"auto", makeAuto}};

bool names(std::string_view value, const Kind& kind) {
  return kind.name.back() == ':' ? value.starts_with(kind.name) : value == kind.name;
}

}  // namespace

std::unique_ptr<Output> makeOutput(std::string_view value, std::string& why) {
  const auto* kind = std::find_if(kKinds.begin(), kKinds.end(),
                                  [value](const Kind& k) { return names(value, k); });
  if (kind == kKinds.end()) {
    why = "unknown output";
    return nullptr;
  }
  return kind->make(std::string(value.substr(kind->name.size())), why);
}

}  // namespace platform::audio
