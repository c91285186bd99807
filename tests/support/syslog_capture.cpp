#include "support/syslog_capture.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <vector>

#include "support/syslog_calls.h"

namespace test {

namespace {

struct LogLine {
  int level;
  std::string text;
};

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

}  // namespace

void takeLogLine(int priority, const char* format, va_list arguments) {
  char text[4096];
  std::vsnprintf(text, sizeof text, format, arguments);
  Recorder& r = recorder();
  const std::lock_guard lock(r.mutex);
  r.lines.push_back({LOG_PRI(priority), text});
  r.added.notify_all();
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
  return recorder().added.wait_for(lock, std::chrono::minutes(1),
                                   [&] { return recorder().count(part, -1) >= count; });
}

}  // namespace test
