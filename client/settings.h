#pragma once

#include <string>

namespace qs_client {

/// Prints the value in force of a property, or keys and values of all where `key` is empty. Throws
/// Failure.
void printProperties(const std::string& key, bool json);

/// Checks the value and puts it into the store's file in one step, so that a reader finds the old
/// file or the new one; comments and other lines stay. Then has the daemon heed it, or says when it
/// will; kFailed where a running daemon was not to be told. Throws Failure.
int setProperty(const std::string& key, const std::string& value);

}  // namespace qs_client
