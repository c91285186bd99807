#pragma once

#include <string>

namespace test {

/// How many lines that the test program logged since the last `clearLog` hold `part`, at any level
/// or at `level`; linking this library puts a recorder in the place of syslog. Any thread.
int countLog(const std::string& part, int level = -1);
void clearLog();
/// Blocks until `count` lines hold `part`; false after a minute.
bool waitForLog(const std::string& part, int count = 1);

}  // namespace test
