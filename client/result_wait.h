#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qs_client {

/// The most that these texts can take to be spoken at `speed` (0: as configured, taken as the
/// slowest): three times what prose takes, as much as where a comma follows every short word, and
/// 5 s for an alert.
std::chrono::seconds longestSpeech(const std::vector<std::string>& texts, int speed, bool alert);

/// Which result is ours? Results may come before the reply that tells our handle; none is lost. One
/// thread.
class ResultWait {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// No result within `longest` of the call, or of the last result of another request that ours may
  /// have waited for, is none.
  ResultWait(std::chrono::seconds longest, Time called)
      : limit(longest), deadlineAt(called + longest) {}

  void take(std::uint64_t handle, std::uint32_t code, Time now);
  void setHandle(std::uint64_t handle) { ours = handle; }

  /// Our request's result code.
  std::optional<std::uint32_t> result() const;
  Time deadline() const { return deadlineAt; }

 private:
  std::chrono::seconds limit;
  Time deadlineAt;
  std::uint64_t ours = 0;
  std::map<std::uint64_t, std::uint32_t> results;
};

}  // namespace qs_client
