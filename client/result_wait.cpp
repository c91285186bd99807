#include "result_wait.h"

#include <cmath>

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

void ResultWait::take(std::uint64_t handle, std::uint32_t code, Time now) {
  results.insert_or_assign(handle, code);
  if (handle != ours) deadlineAt = now + limit;
}

std::optional<std::uint32_t> ResultWait::result() const {
  const auto found = results.find(ours);
  return found != results.end() ? std::optional(found->second) : std::nullopt;
}

}  // namespace qs_client
