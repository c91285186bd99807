#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "latency_pulse.h"
#include "latency_timeline.h"

namespace bench {

/// Of 32,768: 1 % of full scale.
inline constexpr int kAudible = 328;

/// A stretch of what was played, mono at 48,000, with its first frame's moment.
struct Recording {
  Moment start;
  std::vector<std::int16_t> samples;

  Moment momentOf(std::size_t index) const {
    return start + lengthOf(static_cast<std::int64_t>(index));
  }
  /// The first and the last sample of at least 1 % of full scale.
  std::optional<std::size_t> firstAudible() const;
  std::optional<std::size_t> lastAudible() const;
};

/// Records the monitor of the null sink from construction on. Any one thread; failures throw.
class MonitorRecorder {
 public:
  explicit MonitorRecorder(const PulseConnection& to);
  ~MonitorRecorder();
  MonitorRecorder(const MonitorRecorder&) = delete;
  MonitorRecorder& operator=(const MonitorRecorder&) = delete;

  /// What is played from `from` to `to`. Blocks until it has been recorded.
  Recording record(Moment from, Moment to);
  /// When the first audible sample after `from` is played; nothing if there is none before `limit`.
  /// Blocks until then.
  std::optional<Moment> awaitAudible(Moment from, Moment limit);
  /// Blocks until nothing audible has been played for so long; throws after 10 s of sound.
  void awaitQuiet(std::chrono::milliseconds length);

  /// How well moments are known, and how the server kept its time.
  struct Quality {
    Milliseconds deviationMedian{0};  // of a second's origin from the one that is used
    Milliseconds deviationMost{0};
    Milliseconds drift{0};           // of the origin, from the first second to the last
    Milliseconds latenessMedian{0};  // from a fragment's due moment to its arrival
    Milliseconds lateness99{0};      // 99 in a hundred fragments are no later
    Milliseconds latenessMost{0};
  };
  Quality quality();

 private:
  static void onData(pa_stream* stream, std::size_t bytes, void* self);
  void take(const void* data, std::size_t bytes);
  void awaitPosition(std::unique_lock<std::mutex>& lock, std::int64_t position);

  const PulseConnection& connection;
  PulseStream stream;

  std::mutex mutex;  // guards what follows
  std::condition_variable grown;
  Timeline timeline;
  std::vector<std::int16_t> samples;
  struct Arrival {
    std::int64_t position;
    Moment moment;
  };
  std::vector<Arrival> arrivals;
};

}  // namespace bench
