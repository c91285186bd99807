#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/condition.h"

namespace qs_ns {

/// On the way from the call to the first sound, what took its time.
enum class Stage : std::size_t {
  called,         ///< the request was made
  taken,          ///< it is no longer queued
  sessionOpened,  ///< the media server has a session for it
  firstSamples,   ///< of a cache or the speech engine
  firstFrame,     ///< the media server has taken it
  firstAudible,   ///< the media server has taken a sample of 1 % of full scale
  count
};

/// When a request reached its stages. Each stage is noted by one thread, the first time counts;
/// read when those threads are done with the request.
class StageTimes {
 public:
  StageTimes() { note(Stage::called); }

  /// Neither blocks nor allocates.
  void note(Stage stage);
  bool isNoted(Stage stage) const { return noted[index(stage)]; }
  /// In one line at LOG_DEBUG; -1 where a stage was not reached.
  void log(std::uint64_t handle) const;

 private:
  static constexpr std::size_t index(Stage stage) { return static_cast<std::size_t>(stage); }
  long long microsecondsTo(Stage stage) const;

  std::array<platform::MonotonicTime, static_cast<std::size_t>(Stage::count)> times{};
  std::array<bool, static_cast<std::size_t>(Stage::count)> noted{};
};

}  // namespace qs_ns
