#pragma once

namespace qs_client {

/// Prints results as they come, until SIGINT or SIGTERM. Throws Failure where the daemon or
/// the bus goes.
int watch(bool json);

}  // namespace qs_client
