#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace test {

/// Environment variables as "NAME=value", added to the test's own.
using Environment = std::vector<std::string>;

/// The entry that loads the tests' library (preload.cpp) into a child, a sanitizer's runtime first.
std::string preloadEntry();

/// A program run by a test; killed with it. Its standard output goes to the test.
class ChildProcess {
 public:
  ChildProcess(const std::string& program, std::vector<std::string> arguments,
               const Environment& environment = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t id() const { return process; }
  /// Was it waited for?
  bool hasEnded() const { return ended; }
  /// Blocks for the next byte of the child's standard output; false at its end.
  bool readByte();
  /// Blocks until the child has put out `end`: all that came up to that, or to the output's end.
  std::string readUntil(const std::string& end);
  /// What is left of the child's standard output, to its end.
  std::string readAll();
  /// Blocks until the child has ended: its wait status.
  int wait();

 private:
  pid_t process = -1;
  int output = -1;
  bool ended = false;
};

}  // namespace test
