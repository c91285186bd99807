#pragma once

#include <string>

namespace qs_client {

/// Prints the value in force of a property. Throws Failure for an unknown key.
int printProperty(const std::string& key);

/// Checks the value and puts it into the store's file in one step, so that a reader finds the old
/// file or the new one; comments and other lines stay. Then has the daemon heed it, where it runs.
/// Throws Failure.
int setProperty(const std::string& key, const std::string& value);

}  // namespace qs_client
