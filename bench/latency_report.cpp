#include "latency_report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <numeric>
#include <stdexcept>
#include <thread>

namespace bench {

namespace {

std::string processorModel() {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);)
    if (line.starts_with("model name")) return line.substr(line.find(':') + 2);
  return "unknown";
}

std::string inWords(const std::vector<Target>& targets) {
  std::string words;
  for (const Target& target : targets) {
    char one[40];
    std::snprintf(one, sizeof one, "%s %.4g", nameOf(target.statistic).c_str(), target.limit);
    words += (words.empty() ? "" : ", ") + std::string(one);
  }
  return words.empty() ? "-" : words;
}

std::string verdictOf(const Row& row) {
  if (row.targets.empty()) return "-";
  return row.met() ? "met" : "missed";
}

nlohmann::ordered_json inJson(const Row& row) {
  nlohmann::ordered_json json{{"group", row.name},
                              {"what", row.what},
                              {"unit", row.unit},
                              {"targets", nlohmann::ordered_json::object()},
                              {"median", row.statistic(Statistic::median)},
                              {"p95", row.statistic(Statistic::p95)},
                              {"min", *std::min_element(row.values.begin(), row.values.end())},
                              {"max", row.statistic(Statistic::largest)},
                              {"mean", row.statistic(Statistic::mean)},
                              {"faults", row.faults},
                              {"verdict", verdictOf(row)},
                              {"note", row.note},
                              {"values", row.values}};
  for (const Target& target : row.targets)
    json["targets"][nameOf(target.statistic)] = target.limit;
  return json;
}

void print(const Row& row) {
  std::printf(
      "%-58s %-5s %-22s %8.2f %8.2f %8.2f %8.2f  %s%s%s\n", row.what.c_str(), row.unit.c_str(),
      inWords(row.targets).c_str(), row.statistic(Statistic::median), row.statistic(Statistic::p95),
      *std::min_element(row.values.begin(), row.values.end()), row.statistic(Statistic::largest),
      verdictOf(row).c_str(), row.note.empty() ? "" : "; ", row.note.c_str());
}

}  // namespace

std::string nameOf(Statistic statistic) {
  switch (statistic) {
    case Statistic::median:
      return "median";
    case Statistic::p95:
      return "p95";
    case Statistic::largest:
      return "max";
    case Statistic::mean:
      break;
  }
  return "mean";
}

double Row::statistic(Statistic wanted) const {
  std::vector<double> sorted = values;
  std::sort(sorted.begin(), sorted.end());
  const std::size_t count = sorted.size();
  switch (wanted) {
    case Statistic::median:
      return (sorted[(count - 1) / 2] + sorted[count / 2]) / 2;
    case Statistic::p95:
      return sorted[(count * 95 + 99) / 100 - 1];
    case Statistic::largest:
      return sorted.back();
    case Statistic::mean:
      break;
  }
  return std::accumulate(sorted.begin(), sorted.end(), 0.0) / static_cast<double>(count);
}

bool Row::met() const {
  return faults == 0 && std::all_of(targets.begin(), targets.end(), [this](const Target& target) {
           return statistic(target.statistic) <= target.limit;
         });
}

void Report::add(Row row) {
  if (row.values.empty()) throw std::runtime_error("nothing was measured: " + row.what);
  std::fprintf(stderr, "%-58s %8.2f %s\n", row.what.c_str(), row.statistic(Statistic::median),
               row.unit.c_str());
  rows.push_back(std::move(row));
}

void Report::printTable() const {
  std::printf("%-58s %-5s %-22s %8s %8s %8s %8s  %s\n", "", "unit", "target (at most)", "median",
              "p95", "min", "max", "verdict");
  for (const Row& row : rows)
    print(row);
  for (const auto& [key, value] : facts)
    std::printf("%-58s %.3f\n", key.c_str(), value);
}

void Report::write(const std::string& path) const {
  nlohmann::ordered_json json{{"processor", processorModel()},
                              {"processors", std::thread::hardware_concurrency()},
                              {"measuring", nlohmann::ordered_json::object()},
                              {"rows", nlohmann::ordered_json::array()}};
  for (const auto& [key, value] : facts)
    json["measuring"][key] = value;
  for (const Row& row : rows)
    json["rows"].push_back(inJson(row));
  std::ofstream file(path);
  file << json.dump(1) << '\n';
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

bool Report::allMet() const {
  return std::all_of(rows.begin(), rows.end(), [](const Row& row) { return row.met(); });
}

}  // namespace bench
