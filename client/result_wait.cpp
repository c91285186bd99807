#include "result_wait.h"

#include <cmath>
#include <utility>

#include "tts/utterance_pieces.h"

namespace qs_client {

std::chrono::seconds longestSpeech(const std::vector<std::string>& texts, int speed, bool alert) {
  constexpr double kSecondsOfOneWeight = 0.175;  // at stretch 1, the slowest speed's
  double weight = 0;
  for (const std::string& text : texts)
    weight += static_cast<double>(qs_ns::textWeight(text));
  const double stretch = speed == 0 ? 1.0 : 0.75 - (speed - 3) / 8.0;
  const double pauses = static_cast<double>(texts.size());
  return std::chrono::seconds(
      static_cast<int>(std::ceil(weight * kSecondsOfOneWeight * stretch + pauses)) +
      (alert ? 5 : 0));
}

void ResultWait::take(std::uint64_t handle, std::uint32_t resultCode, Time now) {
  if (ours == 0) {
    early.push_back({handle, resultCode, now});
  } else if (handle == ours) {
    code = resultCode;
  } else if (handle > ours) {
    passedOver = true;
  } else {
    deadlineAt = now + limit;
  }
}

void ResultWait::setHandle(std::uint64_t handle) {
  ours = handle;
  for (const Early& one : std::exchange(early, {}))
    take(one.handle, one.code, one.at);
}

}  // namespace qs_client
