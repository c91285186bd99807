#pragma once

#include <string>
#include <vector>

namespace bench {

/// What of a row's values must not pass a limit. p95: of twenty values at most one lies above it.
enum class Statistic { median, p95, largest, mean };

struct Target {
  Statistic statistic;
  double limit;
};

struct Row {
  std::string name{};  // of the group of rows that is measured together
  std::string what{};
  std::string unit{};
  std::vector<Target> targets{};
  std::vector<double> values{};
  /// Repetitions in which something else than a time went wrong; any is a miss.
  int faults = 0;
  std::string note{};

  double statistic(Statistic wanted) const;
  bool met() const;
};

std::string nameOf(Statistic statistic);

/// The results of a run, printed row by row as they come.
class Report {
 public:
  /// Throws where the row has no values.
  void add(Row row);
  /// Something about how it was measured, with numbers.
  void describe(const std::string& key, double value) { facts.emplace_back(key, value); }
  void printTable() const;
  /// Throws where the file cannot be written.
  void write(const std::string& path) const;
  bool allMet() const;

 private:
  std::vector<Row> rows;
  std::vector<std::pair<std::string, double>> facts;
};

}  // namespace bench
