#pragma once

#include <stdexcept>

namespace qs_client {

/// What the program exits with.
enum ExitCode : int { kOk = 0, kFailed = 1, kUsage = 2, kStopped = 3, kNoResult = 4 };

/// One sentence for the user, saying what to do about it.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace qs_client
