#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace qs_client {

struct SayOptions {
  std::vector<std::string> texts;
  int speed = 0;  // 1 to 5; 0: as configured
  bool fastVoice = false;
  bool alert = false;
  bool silence = false;
  int precedence = 0;  // the two lowest bits of the request's flags
  std::int32_t type = 0;
  std::chrono::seconds wait{0};  // at least so long, where the texts themselves need less
  bool noWait = false;
};

/// Throws Failure where the bus or the synthesis would not take it; `what` is how to call it.
void checkText(const std::string& text, const std::string& what = "the text");

/// Speaks and waits for the result; the exit code. Without texts and alert, reads standard input.
/// Throws Failure and DBus::Error.
int say(SayOptions options);

}  // namespace qs_client
