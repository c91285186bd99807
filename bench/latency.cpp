// Measures how fast the daemon speaks and falls silent, by what a sound server's monitor hears.

#include <getopt.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "latency_calibration.h"
#include "latency_measurements.h"

namespace {

struct Measurement {
  const char* name;
  void (*run)(bench::Stand&, bench::Report&, int);
};

constexpr Measurement kMeasurements[] = {
    {"calls", bench::measureCalls},
    {"load", bench::measureCallsUnderLoad},
    {"reload", bench::measureCallsAfterReload},
    {"stop", bench::measureStop},
    {"interruption", bench::measureInterruption},
    {"key", bench::measureHeldKey},
    {"start", bench::measureStart},
    {"processor", bench::measureProcessorTime},
    {"idle", bench::measureIdle},
};

struct Options {
  std::vector<std::string> rows;
  int repetitions = 30;
  std::string json;
};

// It is 0.2 ms where the machine keeps up.
constexpr double kMostOffMs = 1;

constexpr char kUsage[] =
    "usage: latency-bench [--rows=NAME,...] [--repetitions=N] [--json=FILE]\n"
    "rows: calls load reload stop interruption key start processor idle (all)\n";

bool isKnown(const std::string& name) {
  return std::any_of(std::begin(kMeasurements), std::end(kMeasurements),
                     [&](const Measurement& one) { return one.name == name; });
}

bool readRows(const char* names, std::vector<std::string>& rows) {
  std::istringstream list(names);
  for (std::string name; std::getline(list, name, ',');) {
    if (!isKnown(name)) return false;
    rows.push_back(name);
  }
  return true;
}

bool readCount(const char* text, int& count) {
  const auto parsed = std::from_chars(text, text + std::strlen(text), count);
  return parsed.ec == std::errc() && *parsed.ptr == '\0' && count > 0;
}

bool readOptions(int argc, char** argv, Options& options) {
  const option known[] = {{"rows", required_argument, nullptr, 'r'},
                          {"repetitions", required_argument, nullptr, 'n'},
                          {"json", required_argument, nullptr, 'j'},
                          {nullptr, 0, nullptr, 0}};
  for (int key = 0; (key = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
    if (key == 'r' && !readRows(optarg, options.rows)) return false;
    if (key == 'n' && !readCount(optarg, options.repetitions)) return false;
    if (key == 'j') options.json = optarg;
    if (key == '?') return false;
  }
  return optind == argc;
}

void calibrate(bench::Stand& stand, bench::Report& report, const std::string& when) {
  bench::Row clicks{.values = stand.compareClicks()};
  if (std::abs(clicks.statistic(bench::Statistic::median)) > kMostOffMs)
    throw std::runtime_error("the recorder and the sound server disagree about the time");
  report.describe("clicks " + when + ": recorder less server, ms, median",
                  clicks.statistic(bench::Statistic::median));
  report.describe("clicks " + when + ": smallest",
                  *std::min_element(clicks.values.begin(), clicks.values.end()));
  report.describe("clicks " + when + ": largest", clicks.statistic(bench::Statistic::largest));
}

void describe(bench::MonitorRecorder& recorder, bench::Report& report) {
  const auto quality = recorder.quality();
  report.describe("monitor: origin of a second off the one used, ms, median",
                  quality.deviationMedian.count());
  report.describe("monitor: origin of a second off the one used, ms, largest",
                  quality.deviationMost.count());
  report.describe("monitor: drift of the origin in the whole run, ms", quality.drift.count());
  report.describe("monitor: lateness of blocks, ms, median", quality.latenessMedian.count());
  report.describe("monitor: lateness of blocks, ms, 99 %", quality.lateness99.count());
  report.describe("monitor: lateness of blocks, ms, largest", quality.latenessMost.count());
}

void measure(const Options& options, bench::Report& report) {
  bench::Stand stand;
  calibrate(stand, report, "before");
  for (const Measurement& one : kMeasurements)
    if (options.rows.empty() || std::count(options.rows.begin(), options.rows.end(), one.name) > 0)
      one.run(stand, report, options.repetitions);
  stand.end();
  calibrate(stand, report, "after");
  describe(stand.recorder, report);
}

}  // namespace

int main(int argc, char** argv) {
  // The tests' harness reports by googletest's assertions: each is to end the run.
  testing::InitGoogleTest();
  GTEST_FLAG_SET(throw_on_failure, true);
  Options options;
  if (!readOptions(argc, argv, options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  try {
    bench::Report report;
    measure(options, report);
    report.printTable();
    if (!options.json.empty()) report.write(options.json);
    return report.allMet() ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "latency-bench: %s\n", error.what());
    return 3;
  }
}
