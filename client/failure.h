#pragma once

#include <stdexcept>

namespace qs_client {

/// What the program exits with.
enum ExitCode : int { kOk = 0, kFailed = 1, kUsage = 2, kStopped = 3, kNoResult = 4 };

inline constexpr char kNotRunning[] =
    "the daemon is not running; start it with systemctl start quillspeak";
inline constexpr char kLog[] = "its log (journalctl -t quillspeak)";
inline constexpr char kNoAnswer[] =
    "the daemon did not answer; restart it with systemctl restart quillspeak";

/// One sentence for the user, saying what to do about it.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The same for what no daemon would take.
class UsageFailure : public Failure {
 public:
  using Failure::Failure;
};

}  // namespace qs_client
