// From the call until the first sample of 1 % of full scale is played.

#include <cstdio>
#include <functional>
#include <string>

#include "latency_load.h"
#include "latency_measurements.h"

namespace bench {

namespace {

using std::chrono::milliseconds;

// How long a text is heard before it is stopped, so that a run stays short.
constexpr milliseconds kHeardLongEnough{100};

struct Situation {
  std::string group;
  std::string suffix{};
  std::function<void(Stand&)> before = [](Stand&) {};  // just before the call
  double slack = 1;  // by which the targets of p95 are multiplied; of the median none is left
};

double timeToHear(Stand& stand, const Situation& situation, const std::string& text) {
  stand.settle();
  situation.before(stand);
  const Call call = stand.play(text);
  const Moment heard = stand.awaitHeard(call);
  stand.pause(kHeardLongEnough);
  stand.stop(call);
  return Milliseconds(heard - call.at).count();
}

std::vector<Target> targets(const Situation& situation, double median, double p95) {
  if (situation.slack == 1) return {{Statistic::median, median}, {Statistic::p95, p95}};
  return {{Statistic::p95, p95 * situation.slack}};
}

struct Kind {
  const char* what;
  double median;
  double p95;
  std::function<std::string(Texts&)> text;
};

void measureKind(Stand& stand, Report& report, int repetitions, const Situation& situation,
                 const Kind& kind) {
  Row row{.name = situation.group,
          .what = kind.what + situation.suffix,
          .unit = "ms",
          .targets = targets(situation, kind.median, kind.p95)};
  for (int i = 0; i < repetitions; ++i)
    row.values.push_back(timeToHear(stand, situation, kind.text(stand.texts)));
  report.add(std::move(row));
}

/// In turn with their first sentence alone, which is what they are held against.
void measureHundredWords(Stand& stand, Report& report, int repetitions,
                         const Situation& situation) {
  Row all{.name = situation.group, .what = "100 words" + situation.suffix, .unit = "ms"};
  Row alone{.name = situation.group,
            .what = "their first sentence alone" + situation.suffix,
            .unit = "ms"};
  for (int i = 0; i < repetitions; ++i) {
    const Texts::Long text = stand.texts.hundredWords();
    alone.values.push_back(timeToHear(stand, situation, text.firstSentence));
    all.values.push_back(timeToHear(stand, situation, text.all));
  }
  if (situation.slack == 1)
    all.targets = {{Statistic::median, alone.statistic(Statistic::median) + 10}};
  else
    all.targets = {{Statistic::p95, (42 + 10) * situation.slack}};
  report.add(std::move(all));
  report.add(std::move(alone));
}

void measureAll(Stand& stand, Report& report, int repetitions, const Situation& situation) {
  const Kind kinds[] = {
      {"phrase in the static cache", 18, 28, [](Texts&) { return std::string(kStaticPhrase); }},
      {"text in the dynamic cache", 18, 28, [](Texts&) { return std::string(kWord); }},
      {"one word, synthesised", 25, 38, [](Texts& texts) { return texts.word(); }},
      {"ten words, synthesised", 30, 42, [](Texts& texts) { return texts.sentence(); }}};
  stand.playWhole(kWord);
  for (const Kind& kind : kinds)
    measureKind(stand, report, repetitions, situation, kind);
  measureHundredWords(stand, report, repetitions, situation);
}

}  // namespace

void measureCalls(Stand& stand, Report& report, int repetitions) {
  stand.start();
  measureAll(stand, report, repetitions, {.group = "calls"});
}

void measureCallsUnderLoad(Stand& stand, Report& report, int repetitions) {
  stand.start();
  const Load load(stand);
  measureAll(stand, report, repetitions, {.group = "load", .suffix = ", under load", .slack = 2});
  report.describe("load: calls a second", load.callsPerSecond());
  report.describe("load: largest conversions answered", load.conversions());
  report.describe("load: calls that failed", load.failures());
}

void measureCallsAfterReload(Stand& stand, Report& report, int repetitions) {
  stand.start();
  const auto reload = [](Stand& reloaded) { reloaded.client().reload(0); };
  measureAll(stand, report, repetitions,
             {.group = "reload", .suffix = ", after reload", .before = reload, .slack = 2});
}

}  // namespace bench
