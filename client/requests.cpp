#include "requests.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "bus.h"
#include "failure.h"
#include "properties.h"
#include "say.h"

namespace qs_client {

namespace {

// All zero where there is no such file; nothing where it cannot be looked at from here.
std::optional<struct stat> stateOf(const std::string& path) {
  struct stat state {};
  if (stat(path.c_str(), &state) == 0) return state;
  return errno == EACCES ? std::nullopt : std::optional<struct stat>(std::in_place);
}

bool isRewritten(const struct stat& before, const struct stat& after) {
  return after.st_size > 0 &&
         (before.st_ino != after.st_ino || before.st_mtim.tv_sec != after.st_mtim.tv_sec ||
          before.st_mtim.tv_nsec != after.st_mtim.tv_nsec);
}

// Does the file end before what its RIFF header announces? Not known, hence no, where it may not be
// read from here.
bool isCutShort(const std::string& path) {
  constexpr std::uintmax_t kHeader = 8;
  std::ifstream file(path, std::ios::binary);
  unsigned char start[kHeader] = {};
  if (!file.read(reinterpret_cast<char*>(start), kHeader)) return false;
  std::uintmax_t announced = 0;  // little-endian
  for (std::size_t i = kHeader; i-- > kHeader / 2;)
    announced = announced << 8U | start[i];
  std::error_code failure;
  const std::uintmax_t bytes = std::filesystem::file_size(path, failure);
  return !failure && bytes < kHeader + announced;
}

// A line on a terminal that is rewritten each second and wiped at the end.
class Progress {
 public:
  Progress() = default;
  ~Progress() {
    if (shown >= 0) std::cerr << "\r\33[K" << std::flush;
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// The daemon writes the file when all of it is synthesised: there is no more to tell before.
  /// Short enough for every terminal: what wraps cannot be wiped.
  void show() {
    using std::chrono::duration_cast;
    const auto elapsed = duration_cast<std::chrono::seconds>(Clock::now() - begun).count();
    if (!onTerminal || elapsed == shown) return;
    shown = elapsed;
    std::cerr << "\r\33[Kconverting: " << elapsed / 60 << ':' << elapsed % 60 / 10 << elapsed % 10
              << std::flush;
  }

 private:
  using Clock = std::chrono::steady_clock;

  const bool onTerminal = isatty(STDERR_FILENO) != 0;
  const Clock::time_point begun = Clock::now();
  std::int64_t shown = -1;  // seconds
};

std::string absolutePath(const std::string& path) {
  if (path.empty()) throw UsageFailure("the path is empty; name a file");
  checkText(path, "the path");
  std::error_code failure;
  std::string absolute = std::filesystem::absolute(path, failure);
  if (failure) {
    throw Failure("the folder you are in cannot be told: " + failure.message() +
                  "; name the file with its whole path");
  }
  return absolute;
}

// The daemon's answer does not tell.
void requireWritten(const std::string& path, const std::optional<struct stat>& before,
                    const std::optional<struct stat>& after) {
  if (!after) {
    throw Failure("you may not look whether " + path +
                  " was written; choose a folder that you may enter as well as the daemon");
  }
  if (isRewritten(before.value_or(after.value()), *after)) {
    if (!isCutShort(path)) return;
    throw Failure(path + " was cut short; free space there and convert the text again");
  }
  // In /tmp nobody may write to or remove what another one put there.
  const bool isOld = after->st_nlink != 0;
  throw Failure(path + " was not written; " + (isOld ? "remove the file that is there, " : "") +
                "choose a folder into which the daemon may write (/tmp is one), or look for the "
                "reason in " +
                kLog);
}

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
  const std::string absolute = absolutePath(path);
  Bus bus;
  bus.holdSignals();
  const auto before = stateOf(absolute);
  auto end = Bus::End::done;
  std::optional<std::int32_t> result;
  {
    Progress progress;
    bus.begin("DoTTSFetchInFile", text, absolute);
    end = bus.waitFor([&] {
      progress.show();
      return (result = bus.answer<std::int32_t>()).has_value();
    });
  }
  if (!result) return leave(end, absolute);
  if (*result != 0) {
    throw Failure(std::string("the text gave no sound; try another, or look for the reason in ") +
                  kLog);
  }
  requireWritten(absolute, before, stateOf(absolute));
  return kOk;
}

int status(bool json) {
  constexpr int kAnswerMs = 3000;
  Bus bus;
  bus.set_timeout(kAnswerMs);
  nlohmann::json report{{"running", !bus.owner().empty()}};
  std::vector<PropertyInForce> properties;
  std::string failed;
  try {
    if (report["running"]) {
      report["owner"] = bus.owner();
      report["version"] = static_cast<std::int32_t>(bus.Version());
      report["state"] = static_cast<std::int32_t>(bus.State());
    }
  } catch (const DBus::Error& error) {
    failed = explain(error);
  }
  try {
    properties = propertiesInForce();
  } catch (const Failure& unreadable) {
    failed += (failed.empty() ? "" : "; ") + std::string(unreadable.what());
  }
  if (json) {
    report["properties"] = toJson(properties);
    std::cout << report << '\n';
  } else {
    for (const auto& [key, value] : report.items())
      std::cout << key << ": " << value << '\n';
    std::cout << toText(properties);
  }
  if (!failed.empty()) throw Failure(failed);
  return report["running"] ? kOk : kFailed;
}

}  // namespace qs_client
