#include "latency_recorder.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace bench {

namespace {

using std::chrono::seconds;

// 5 ms. The sink renders blocks of that size then, as it does for the daemon's stream alone.
constexpr std::uint32_t kFragmentFrames = 240;

bool isAudible(std::int16_t sample) {
  return std::abs(int{sample}) >= kAudible;
}

}  // namespace

std::optional<std::size_t> Recording::firstAudible() const {
  const auto first = std::find_if(samples.begin(), samples.end(), isAudible);
  if (first == samples.end()) return std::nullopt;
  return static_cast<std::size_t>(first - samples.begin());
}

std::optional<std::size_t> Recording::lastAudible() const {
  const auto last = std::find_if(samples.rbegin(), samples.rend(), isAudible);
  if (last == samples.rend()) return std::nullopt;
  return static_cast<std::size_t>(samples.rend() - last - 1);
}

MonitorRecorder::MonitorRecorder(const PulseConnection& to) : connection(to) {
  samples.reserve(std::size_t{kRate} * 600);
  {
    const PulseLock lock(connection);
    stream = newStream(connection, "monitor");
    pa_stream_set_read_callback(stream.get(), onData, this);
    pa_buffer_attr buffer{};
    buffer.maxlength = UINT32_MAX;
    buffer.fragsize = kFragmentFrames * sizeof(std::int16_t);
    if (pa_stream_connect_record(stream.get(), "nul.monitor", &buffer, PA_STREAM_ADJUST_LATENCY) <
        0)
      throw std::runtime_error("the monitor cannot be recorded");
    connection.awaitReady(stream.get());
  }
  // Moments are known from the second second on.
  std::unique_lock lock(mutex);
  awaitPosition(lock, std::int64_t{2} * kRate);
}

MonitorRecorder::~MonitorRecorder() {
  const PulseLock lock(connection);
  stream.reset();
}

void MonitorRecorder::onData(pa_stream* stream, std::size_t, void* self) {
  const void* data = nullptr;
  std::size_t bytes = 0;
  while (pa_stream_peek(stream, &data, &bytes) == 0 && bytes > 0) {
    static_cast<MonitorRecorder*>(self)->take(data, bytes);
    pa_stream_drop(stream);
  }
}

void MonitorRecorder::take(const void* data, std::size_t bytes) {
  const Moment now = Clock::now();
  const std::size_t frames = bytes / sizeof(std::int16_t);
  const std::lock_guard lock(mutex);
  const auto position = static_cast<std::int64_t>(samples.size());
  timeline.add(position, now);
  arrivals.push_back({position, now});
  // A hole in the recording has no data.
  if (const auto* const from = static_cast<const std::int16_t*>(data))
    samples.insert(samples.end(), from, from + frames);
  else
    samples.resize(samples.size() + frames);
  grown.notify_all();
}

void MonitorRecorder::awaitPosition(std::unique_lock<std::mutex>& lock, std::int64_t position) {
  const auto reached = [&] { return static_cast<std::int64_t>(samples.size()) >= position; };
  std::size_t before = samples.size();
  while (!grown.wait_for(lock, seconds(5), reached)) {
    if (samples.size() == before) throw std::runtime_error("the monitor stands still");
    before = samples.size();
  }
}

Recording MonitorRecorder::record(Moment from, Moment to) {
  std::unique_lock lock(mutex);
  const std::int64_t first = std::max<std::int64_t>(timeline.positionAt(from), 0);
  const std::int64_t end = std::max(timeline.positionAt(to), first);
  awaitPosition(lock, end);
  return {timeline.momentOf(first), {samples.begin() + first, samples.begin() + end}};
}

std::optional<Moment> MonitorRecorder::awaitAudible(Moment from, Moment limit) {
  std::unique_lock lock(mutex);
  std::int64_t searched = std::max<std::int64_t>(timeline.positionAt(from), 0);
  const std::int64_t last = timeline.positionAt(limit);
  while (searched < last) {
    awaitPosition(lock, searched + 1);
    const auto found = std::find_if(samples.begin() + searched, samples.end(), isAudible);
    searched = found - samples.begin();
    if (found != samples.end()) return timeline.momentOf(searched);
  }
  return std::nullopt;
}

void MonitorRecorder::awaitQuiet(std::chrono::milliseconds length) {
  const Moment deadline = Clock::now() + seconds(10);
  for (Moment since = Clock::now() - length; since < deadline;) {
    const Recording recent = record(since, since + length);
    const auto last = recent.lastAudible();
    if (!last) return;
    since = recent.momentOf(*last + 1);
  }
  throw std::runtime_error("it does not fall silent");
}

MonitorRecorder::Quality MonitorRecorder::quality() {
  const std::lock_guard lock(mutex);
  std::vector<Milliseconds> late;
  for (const Arrival& one : arrivals)
    late.emplace_back(one.moment - timeline.momentOf(one.position));
  std::vector<Milliseconds> deviations = timeline.deviations();
  std::sort(late.begin(), late.end());
  std::sort(deviations.begin(), deviations.end());
  return {.deviationMedian = deviations.at(deviations.size() / 2),
          .deviationMost = deviations.back(),
          .drift = timeline.drift(),
          .latenessMedian = late.at(late.size() / 2),
          .lateness99 = late.at(late.size() * 99 / 100),
          .latenessMost = late.back()};
}

}  // namespace bench
