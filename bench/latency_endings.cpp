// How speech ends: by a stop, by one newer text, by many.

#include <cstdio>
#include <stdexcept>

#include "latency_match.h"
#include "latency_measurements.h"

namespace bench {

namespace {

using std::chrono::milliseconds;

/// What kWord sounds like from its first to its last audible sample.
std::vector<std::int16_t> wordAlone(Stand& stand) {
  stand.settle();
  const Moment from = Clock::now();
  stand.playWhole(stand.texts.soundsLikeWord());
  return audiblePart(stand.recorder.record(from, Clock::now() + milliseconds(200)));
}

Call speakSteadily(Stand& stand) {
  stand.settle();
  // Another beginning each time, so that no cache answers.
  const Call call = stand.play(stand.texts.word() + " " + steadySpeech());
  stand.awaitHeard(call);
  stand.pause(milliseconds(300));
  return call;
}

/// How long the word of `call` took, found by what it sounds like; counts a fault where something
/// else sounds in its place or after it.
double timeToWord(Stand& stand, const Call& call, const std::vector<std::int16_t>& word, Row& row,
                  double& leastLike) {
  stand.awaitResult(call);
  const Recording heard = stand.recorder.record(call.at, Clock::now() + milliseconds(300));
  const Match match = findSound(heard, word);
  leastLike = std::min(leastLike, match.likeness);
  const auto last = heard.lastAudible();
  const std::size_t most = match.index + word.size() + kRate / 50;
  if (match.likeness < kLikeEnough || !last || *last > most) ++row.faults;
  return Milliseconds(heard.momentOf(match.index) - call.at).count();
}

void addWithLikeness(Report& report, Row row, double leastLike) {
  char note[80];
  std::snprintf(
      note, sizeof note, "likeness %.2f at least%s", leastLike,
      row.faults > 0 ? ("; " + std::to_string(row.faults) + " with other sound").c_str() : "");
  row.note = note;
  report.add(std::move(row));
}

/// Nothing where the stop met a pause of the speech.
std::optional<double> timeToSilence(Stand& stand) {
  const Call speech = speakSteadily(stand);
  const Moment stopped = Clock::now();
  stand.stop(speech);
  const Recording after = stand.recorder.record(stopped, stopped + milliseconds(500));
  const auto last = after.lastAudible();
  if (!last) return std::nullopt;
  return Milliseconds(after.momentOf(*last) - stopped).count();
}

}  // namespace

void measureStop(Stand& stand, Report& report, int repetitions) {
  stand.start();
  Row row{.name = "stop",
          .what = "stop to silence",
          .unit = "ms",
          .targets = {{Statistic::median, 15}, {Statistic::p95, 25}}};
  int inPauses = 0;
  while (static_cast<int>(row.values.size()) < repetitions) {
    if (const auto time = timeToSilence(stand))
      row.values.push_back(*time);
    else if (++inPauses > repetitions)
      throw std::runtime_error("the speech has nothing but pauses");
  }
  if (inPauses > 0) row.note = std::to_string(inPauses) + " more met a pause, not counted";
  report.add(std::move(row));
}

void measureInterruption(Stand& stand, Report& report, int repetitions) {
  stand.start();
  const auto word = wordAlone(stand);
  Row row{.name = "interruption",
          .what = "interruption: call to the new word",
          .unit = "ms",
          .targets = {{Statistic::p95, 90}}};
  double leastLike = 1;
  for (int i = 0; i < repetitions; ++i) {
    speakSteadily(stand);
    const Call call = stand.play(stand.texts.soundsLikeWord());
    row.values.push_back(timeToWord(stand, call, word, row, leastLike));
  }
  addWithLikeness(report, std::move(row), leastLike);
}

void measureHeldKey(Stand& stand, Report& report, int repetitions) {
  constexpr int kCalls = 12;
  constexpr milliseconds kBetween{30};
  stand.start();
  const auto word = wordAlone(stand);
  Row row{.name = "key",
          .what = "key held down: last of 12 calls to its word",
          .unit = "ms",
          .targets = {{Statistic::largest, 90}}};
  double leastLike = 1;
  for (int i = 0; i < repetitions; ++i) {
    stand.settle();
    Moment next = Clock::now();
    for (int k = 1; k < kCalls; ++k) {
      stand.play(stand.texts.word());
      next += kBetween;
      stand.client().until([] { return false; },
                           std::chrono::ceil<std::chrono::microseconds>(next - Clock::now()));
    }
    const Call call = stand.play(stand.texts.soundsLikeWord());
    row.values.push_back(timeToWord(stand, call, word, row, leastLike));
  }
  addWithLikeness(report, std::move(row), leastLike);
}

}  // namespace bench
