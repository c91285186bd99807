#pragma once

#include <string>

namespace qs_client {

/// Converts `text` into a wave file; waits as long as that takes and shows it on a terminal. The
/// exit code; kNoResult after SIGINT or SIGTERM, which end the wait alone. Throws Failure and
/// DBus::Error.
int convert(const std::string& text, const std::string& path);

/// Prints whether the daemon runs, what it says of itself and the properties in force; kFailed
/// where it does not run.
int status(bool json);

}  // namespace qs_client
