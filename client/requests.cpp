#include "requests.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>

#include "bus.h"
#include "failure.h"
#include "say.h"

namespace qs_client {

namespace {

constexpr int kConversionMs = 24 * 3600 * 1000;

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

}  // namespace

int convert(const std::string& text, const std::string& path) {
  checkText(text);
  checkText(path);
  const std::string absolute = std::filesystem::absolute(path);
  const struct stat before = stateOf(absolute);
  Bus bus;
  bus.set_timeout(kConversionMs);
  if (isatty(STDERR_FILENO) != 0) std::cerr << "converting into " << absolute << " ...\n";
  const std::int32_t result = bus.DoTTSFetchInFile(text, absolute);
  if (result != 0) throw Failure("the synthesis failed (" + std::to_string(result) + ")");
  if (!isRewritten(before, stateOf(absolute))) {
    throw Failure(absolute + " was not written; choose a folder into which the daemon may write");
  }
  return kOk;
}

int status(bool json) {
  Bus bus;
  nlohmann::json report{{"running", false}};
  try {
    report["owner"] = bus.owner();
    report["version"] = static_cast<std::int32_t>(bus.Version());
    report["state"] = static_cast<std::int32_t>(bus.State());
    report["running"] = true;
  } catch (const DBus::Error& error) {
    if (std::strcmp(error.name(), "org.freedesktop.DBus.Error.NameHasNoOwner") != 0) throw;
  }
  if (json) {
    std::cout << report << '\n';
  } else {
    for (const auto& [key, value] : report.items())
      std::cout << key << ": " << value << '\n';
  }
  return report["running"] ? kOk : kFailed;
}

}  // namespace qs_client
