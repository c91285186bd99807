#pragma once

#include <string>

namespace qs_client {

/// Converts `text` into a wave file; waits as long as that takes. Throws Failure, DBus::Error.
int convert(const std::string& text, const std::string& path);

/// Prints whether the daemon runs, and what it says of itself; 1 where it does not.
int status(bool json);

}  // namespace qs_client
