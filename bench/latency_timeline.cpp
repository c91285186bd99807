#include "latency_timeline.h"

#include <stdexcept>

namespace bench {

namespace {

// What comes sooner after its predecessor may have been rendered with it, before it was due.
constexpr std::chrono::milliseconds kPause{2};
// Of a hundred arrivals of a second, the one that is taken for prompt. The very first may be one
// that was not due yet and was delayed by a little more than kPause.
constexpr std::size_t kPromptPercent = 10;
// The seconds on either side that have a say in a second's origin.
constexpr std::size_t kNeighbours = 2;

}  // namespace

void Timeline::add(std::int64_t position, Moment arrival) {
  if (secondOf(position) > origins.size()) endSecond();
  const bool afterPause = arrival - kPause >= lastArrival;
  lastArrival = arrival;
  if (afterPause) starts.push_back(arrival - lengthOf(position));
}

void Timeline::endSecond() {
  if (starts.empty()) throw std::runtime_error("the monitor has gaps");
  const std::size_t prompt = starts.size() * kPromptPercent / 100;
  std::nth_element(starts.begin(), starts.begin() + static_cast<std::ptrdiff_t>(prompt),
                   starts.end());
  origins.push_back(starts[prompt]);
  starts.clear();
}

Moment Timeline::originAt(std::size_t second) const {
  if (origins.empty()) throw std::runtime_error("the monitor has not been heard for a second");
  const std::size_t middle = std::min(second, origins.size() - 1);
  const std::size_t first = middle - std::min(middle, kNeighbours);
  const std::size_t end = std::min(middle + kNeighbours + 1, origins.size());
  std::vector<Moment> near(origins.begin() + static_cast<std::ptrdiff_t>(first),
                           origins.begin() + static_cast<std::ptrdiff_t>(end));
  std::sort(near.begin(), near.end());
  return near[(near.size() - 1) / 2];
}

std::int64_t Timeline::positionAt(Moment moment) const {
  const auto count = [&](Moment origin) {
    const std::chrono::nanoseconds since = moment - origin;
    return since.count() * (kRate / 1000) / 1'000'000 + (since.count() > 0 ? 1 : 0);
  };
  return count(originAt(secondOf(count(originAt(origins.size())))));
}

std::vector<Milliseconds> Timeline::deviations() const {
  std::vector<Milliseconds> all;
  for (std::size_t second = 0; second < origins.size(); ++second)
    all.emplace_back(std::chrono::abs(origins[second] - originAt(second)));
  return all;
}

Milliseconds Timeline::drift() const {
  return originAt(origins.size()) - originAt(0);
}

}  // namespace bench
