#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qs_client {

/// The most that these texts can take to be spoken at `speed` (0: as configured, taken as the
/// slowest): three times what prose takes, as much as where a comma follows every short word, and
/// 5 s for an alert.
std::chrono::seconds longestSpeech(const std::vector<std::string>& texts, int speed, bool alert);

/// Which result is ours, and may it still come? Handles grow within a run of the daemon, and
/// results come in their order: only requests with lower ones may be spoken before ours, of which
/// there are at most as many as may wait. Results may come before the reply that tells our handle;
/// none is lost. One thread.
class ResultWait {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// No result within `longest` of the call, or of the last result of a request before ours, is
  /// none.
  ResultWait(std::chrono::seconds longest, Time called)
      : limit(longest), deadlineAt(called + longest) {}

  void take(std::uint64_t handle, std::uint32_t resultCode, Time now);
  void setHandle(std::uint64_t handle);

  /// Our request's result code.
  std::optional<std::uint32_t> result() const { return code; }
  /// Has a request behind ours had its turn? Then there is our result by now, or will never be one.
  bool isPassedOver() const { return passedOver; }
  Time deadline() const { return deadlineAt; }

 private:
  struct Early {
    std::uint64_t handle;
    std::uint32_t code;
    Time at;
  };

  std::chrono::seconds limit;
  Time deadlineAt;
  std::uint64_t ours = 0;  // 0: not known yet
  std::vector<Early> early;
  std::optional<std::uint32_t> code;
  bool passedOver = false;
};

}  // namespace qs_client
