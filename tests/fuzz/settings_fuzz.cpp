#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

#include "platform/process_services.h"
#include "platform/property_store.h"

// Any bytes as the property file and as the trace file, compared with a plain reading of their
// format.

namespace {

using Values = std::map<std::string, std::string>;

constexpr std::array kKeys = {"a", "qs_cache", "device.accessibility.qs_speed"};
constexpr std::size_t kMostBytes = 256 * 1024;

void require(bool held) {
  if (!held) std::abort();
}

/// A file in memory that both settings are read from.
int settingsFile() {
  static const int file = [] {
    const int made = memfd_create("settings", 0);
    const std::string path = "/proc/self/fd/" + std::to_string(made);
    setenv("QUILLSPEAK_PROPERTIES", path.c_str(), 1);
    setenv("QUILLSPEAK_TRACE", path.c_str(), 1);
    setlogmask(LOG_UPTO(LOG_EMERG));
    return made;
  }();
  return file;
}

std::string trimmed(const std::string& text) {
  const char* const blanks = " \t\r\v\f";
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) + 1 - first);
}

Values plainReading(const std::string& text) {
  Values values;
  std::string line;
  for (const char character : text + "\n") {
    if (character != '\n') {
      line += character;
      continue;
    }
    line = line.substr(0, line.find('#'));
    const std::size_t equals = line.find('=');
    if (equals != std::string::npos && line.find('\0') == std::string::npos) {
      const std::string key = trimmed(line.substr(0, equals));
      if (!key.empty()) values[key] = trimmed(line.substr(equals + 1));
    }
    line.clear();
  }
  return values;
}

void compare(const Values& values, const char* key) {
  const auto found = values.find(key);
  char text[64] = "untouched";
  const bool readable = found != values.end() && found->second.size() < sizeof text;
  require((getStringProperty(key, text, sizeof text) == 0) == readable);
  require(text == (readable ? found->second : "untouched"));
  int number = -77;
  const bool isNumber = getIntegerProperty(key, &number) == 0;
  require(!isNumber || found != values.end());
  require(number == (isNumber ? std::strtoll(found->second.c_str(), nullptr, 10) : -77));
  bool flag = false;
  getBooleanProperty(key, &flag);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const int file = settingsFile();
  require(ftruncate(file, 0) == 0);
  require(pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
  const std::string text(reinterpret_cast<const char*>(data), size);
  const Values values = size <= kMostBytes ? plainReading(text) : Values{};
  for (const char* const key : kKeys)
    compare(values, key);
  TraceValues trace{};
  settrcvalues("quillspeak", &trace);
  require(trace.baseseverity >= 0 && trace.baseseverity <= 7);
  setlogmask(LOG_UPTO(LOG_EMERG));
  return 0;
}
