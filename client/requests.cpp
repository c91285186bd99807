#include "requests.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "bus.h"
#include "failure.h"
#include "properties.h"
#include "say.h"

namespace qs_client {

namespace {

struct stat stateOf(const std::string& path) {
  struct stat state {};
  if (stat(path.c_str(), &state) != 0) state = {};
  return state;
}

bool isRewritten(const struct stat& before, const struct stat& after) {
  return after.st_size > 0 &&
         (before.st_ino != after.st_ino || before.st_mtim.tv_sec != after.st_mtim.tv_sec ||
          before.st_mtim.tv_nsec != after.st_mtim.tv_nsec);
}

// A line on a terminal that is rewritten each second and wiped at the end.
class Progress {
 public:
  explicit Progress(std::string path) : file(std::move(path)), before(stateOf(file)) {}
  ~Progress() {
    if (shown >= 0) std::cerr << "\r\33[K" << std::flush;
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// Was the file written since?
  bool isWritten() const { return isRewritten(before, stateOf(file)); }
  void show() {
    using std::chrono::duration_cast;
    const auto elapsed = duration_cast<std::chrono::seconds>(Clock::now() - begun).count();
    if (!onTerminal || elapsed == shown) return;
    shown = elapsed;
    const std::int64_t bytes = isWritten() ? stateOf(file).st_size : 0;
    std::cerr << "\r\33[Kconverting: " << elapsed / 60 << ':' << elapsed % 60 / 10 << elapsed % 10
              << ", " << bytes / 1000 << " kB" << std::flush;
  }

 private:
  using Clock = std::chrono::steady_clock;

  const std::string file;
  const struct stat before;
  const bool onTerminal = isatty(STDERR_FILENO) != 0;
  const Clock::time_point begun = Clock::now();
  std::int64_t shown = -1;  // seconds
};

// What it is told where the wait ended without a result.
int leave(Bus::End end, const std::string& path) {
  if (end != Bus::End::interrupted) throw Failure(explain(end));
  std::cerr << "quillspeak: interrupted; the daemon goes on converting into " << path
            << ", which nothing but its end stops\n";
  return kNoResult;
}

}  // namespace

int convert(const std::string& text, const std::string& path) {
  checkText(text);
  checkText(path);
  const std::string absolute = std::filesystem::absolute(path);
  Bus bus;
  bus.holdSignals();
  auto end = Bus::End::done;
  std::optional<std::int32_t> result;
  bool written = false;
  {
    Progress progress(absolute);
    bus.beginConversion(text, absolute);
    end = bus.waitFor([&] {
      progress.show();
      return (result = bus.conversionResult()).has_value();
    });
    written = progress.isWritten();
  }
  if (!result) return leave(end, absolute);
  if (*result != 0) throw Failure("the synthesis failed (" + std::to_string(*result) + ")");
  if (!written) {
    throw Failure(absolute + " was not written; choose a folder into which the daemon may write");
  }
  return kOk;
}

int status(bool json) {
  Bus bus;
  nlohmann::json report{{"running", !bus.owner().empty()}};
  if (report["running"]) {
    report["owner"] = bus.owner();
    report["version"] = static_cast<std::int32_t>(bus.Version());
    report["state"] = static_cast<std::int32_t>(bus.State());
  }
  const auto properties = propertiesInForce();
  if (json) {
    report["properties"] = toJson(properties);
    std::cout << report << '\n';
  } else {
    for (const auto& [key, value] : report.items())
      std::cout << key << ": " << value << '\n';
    std::cout << toText(properties);
  }
  return report["running"] ? kOk : kFailed;
}

}  // namespace qs_client
