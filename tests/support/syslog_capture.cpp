#include "support/syslog_capture.h"

#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace test {

namespace {

struct Recorder {
  std::mutex mutex;
  std::condition_variable added;
  std::vector<LogLine> lines;

  int count(const std::string& part, int level) const {
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const LogLine& line) {
      return (level < 0 || line.level == level) && line.text.find(part) != std::string::npos;
    }));
  }
};

Recorder& recorder() {
  static Recorder instance;
  return instance;
}

[[gnu::format(printf, 2, 0)]] void record(int level, const char* format, va_list arguments) {
  char text[4096];
  std::vsnprintf(text, sizeof text, format, arguments);
  Recorder& r = recorder();
  const std::lock_guard lock(r.mutex);
  r.lines.push_back({LOG_PRI(level), text});
  r.added.notify_all();
}

}  // namespace

std::vector<LogLine> logLines() {
  const std::lock_guard lock(recorder().mutex);
  return recorder().lines;
}

int countLog(const std::string& part, int level) {
  const std::lock_guard lock(recorder().mutex);
  return recorder().count(part, level);
}

void clearLog() {
  const std::lock_guard lock(recorder().mutex);
  recorder().lines.clear();
}

bool waitForLog(const std::string& part, int count) {
  std::unique_lock lock(recorder().mutex);
  return recorder().added.wait_for(lock, std::chrono::seconds(10),
                                   [&] { return recorder().count(part, -1) >= count; });
}

}  // namespace test

extern "C" {

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  test::record(priority, format, arguments);
  va_end(arguments);
}

void vsyslog(int priority, const char* format, va_list arguments) {
  test::record(priority, format, arguments);
}

// What the fortified headers call; the name is the C library's.
[[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int flag, const char* format, ...);
void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  test::record(priority, format, arguments);
  va_end(arguments);
}
}
