#pragma once

#include <string>
#include <vector>

namespace test {

/// One message as the program logged it.
struct LogLine {
  int level;
  std::string text;
};

/// All that the test program logged since the last `clearLog`; linking this library puts a recorder
/// in the place of syslog. Any thread.
std::vector<LogLine> logLines();
/// How many lines hold `part`, at any level or at `level`.
int countLog(const std::string& part, int level = -1);
void clearLog();
/// Blocks until `count` lines hold `part`; false after 10 s.
bool waitForLog(const std::string& part, int count = 1);

}  // namespace test
