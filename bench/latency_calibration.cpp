#include "latency_calibration.h"

#include <sys/time.h>

#include <stdexcept>

namespace bench {

namespace {

constexpr int kClicks = 30;
constexpr std::int16_t kClick = 20000;
// Prime, so that the clicks meet every place in the sink's blocks.
constexpr std::int64_t kClickDistance = 2399;

std::vector<std::int16_t> clicks() {
  std::vector<std::int16_t> sound(static_cast<std::size_t>(kClickDistance * (kClicks + 2)));
  for (int i = 1; i <= kClicks; ++i)
    sound[static_cast<std::size_t>(kClickDistance * i)] = kClick;
  return sound;
}

void wakeOnSuccess(pa_stream*, int, void* connection) {
  static_cast<const PulseConnection*>(connection)->wake();
}

/// The moment of a time by the system's clock, which the library uses.
Moment monotonic(const timeval& time) {
  timeval nowBySystem{};
  gettimeofday(&nowBySystem, nullptr);
  const auto ago = std::chrono::seconds(nowBySystem.tv_sec - time.tv_sec) +
                   std::chrono::microseconds(nowBySystem.tv_usec - time.tv_usec);
  return Clock::now() - ago;
}

/// When the server plays the stream's frame 0, by what it says of the stream now. PulseLock held.
Moment startOf(const PulseConnection& connection, pa_stream* stream) {
  connection.finish(pa_stream_update_timing_info(stream, wakeOnSuccess,
                                                 const_cast<PulseConnection*>(&connection)));
  const pa_timing_info* const timing = pa_stream_get_timing_info(stream);
  if (timing == nullptr || timing->playing == 0 || timing->read_index_corrupt != 0)
    throw std::runtime_error("the sound server does not tell when it plays");
  const auto frames = timing->read_index / static_cast<std::int64_t>(sizeof(std::int16_t));
  return monotonic(timing->timestamp) + std::chrono::microseconds(timing->sink_usec) -
         lengthOf(frames);
}

/// Begins to play all clicks; a moment before the first. PulseLock held.
Moment playClicks(const PulseConnection& connection, pa_stream* stream) {
  const std::vector<std::int16_t> sound = clicks();
  pa_buffer_attr buffer{};
  buffer.maxlength = UINT32_MAX;
  buffer.tlength = static_cast<std::uint32_t>(sound.size() * sizeof sound[0]);
  buffer.prebuf = buffer.minreq = UINT32_MAX;
  if (pa_stream_connect_playback(stream, "nul", &buffer, PA_STREAM_NOFLAGS, nullptr, nullptr) < 0)
    throw std::runtime_error("clicks cannot be played");
  connection.awaitReady(stream);
  pa_stream_write(stream, sound.data(), buffer.tlength, nullptr, 0, PA_SEEK_RELATIVE);
  connection.finish(
      pa_stream_trigger(stream, wakeOnSuccess, const_cast<PulseConnection*>(&connection)));
  return Clock::now();
}

}  // namespace

std::vector<double> compareClicks(const PulseConnection& connection, MonitorRecorder& recorder) {
  PulseStream stream;
  Moment from;
  {
    const PulseLock lock(connection);
    stream = newStream(connection, "clicks");
    from = playClicks(connection, stream.get());
  }
  std::vector<double> differences;
  for (int i = 1; i <= kClicks; ++i) {
    const auto heard = recorder.awaitAudible(from, from + std::chrono::seconds(1));
    if (!heard) throw std::runtime_error("a click is missing from the recording");
    const PulseLock lock(connection);
    const Moment expected = startOf(connection, stream.get()) + lengthOf(kClickDistance * i);
    differences.push_back(Milliseconds(*heard - expected).count());
    from = *heard + lengthOf(kClickDistance / 2);
  }
  const PulseLock lock(connection);
  stream.reset();
  return differences;
}

}  // namespace bench
