#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <vector>

namespace bench {

/// CLOCK_MONOTONIC, as the sound server's null sink and the bench itself use it.
using Clock = std::chrono::steady_clock;
using Moment = Clock::time_point;
using Milliseconds = std::chrono::duration<double, std::milli>;

inline constexpr int kRate = 48000;

/// So many frames of sound as time, rounded to nanoseconds.
constexpr std::chrono::nanoseconds lengthOf(std::int64_t frames) {
  return std::chrono::nanoseconds(frames * 1'000'000 / (kRate / 1000));
}

/// When each position of the monitor was played. The null sink wakes up when the first frame that
/// it has not rendered is due, never before, and renders the next few milliseconds at once; so what
/// comes first after a pause shows by its arrival when it was due, and all that delays it makes it
/// seem later. The sink counts its due times on in whole microseconds, which lets it run ahead of
/// its rate by up to 0.02 %: each second has an origin of its own, from the earlier ones of its
/// arrivals and its neighbours'. One thread.
class Timeline {
 public:
  /// A fragment that begins at `position` came in at `arrival`; in the order of their positions.
  void add(std::int64_t position, Moment arrival);

  Moment momentOf(std::int64_t position) const {
    return originAt(secondOf(position)) + lengthOf(position);
  }
  /// The first position that is played at `moment` or later; negative before the recording began.
  std::int64_t positionAt(Moment moment) const;

  /// How far each second's own origin lies from the one that is used.
  std::vector<Milliseconds> deviations() const;
  /// How far the origin moved from the first second to the last.
  Milliseconds drift() const;

 private:
  static std::size_t secondOf(std::int64_t position) {
    return static_cast<std::size_t>(std::max<std::int64_t>(position, 0) / kRate);
  }
  void endSecond();
  Moment originAt(std::size_t second) const;

  std::vector<Moment> origins;  // of the seconds that are over
  std::vector<Moment> starts;   // in the second that runs: arrivals less positions
  Moment lastArrival = Moment::min();
};

}  // namespace bench
