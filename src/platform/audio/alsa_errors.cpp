#include "platform/audio/alsa_errors.h"

#include <array>
#include <cstdarg>
#include <cstdio>

#include <alsa/asoundlib.h>

namespace platform::audio {

namespace {

// The first message names the cause, the later ones only what failed because of it.
thread_local std::array<char, 160> firstMessage{};

[[gnu::format(printf, 5, 6)]] void keepFirst(const char*, int, const char*, int, const char* format,
                                             ...) {
  if (firstMessage[0] != '\0') return;
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(firstMessage.data(), firstMessage.size(), format, arguments);
  va_end(arguments);
}

}  // namespace

void collectAlsaErrors() {
  // Once: the handler is the whole process's, and device threads come and go.
  [[maybe_unused]] static const int installed = snd_lib_error_set_handler(keepFirst);
  firstMessage[0] = '\0';
}

std::string describeAlsaError(int status) {
  std::string text = snd_strerror(status);
  if (firstMessage[0] != '\0') text.append(" (").append(firstMessage.data()).append(")");
  return text;
}

}  // namespace platform::audio
