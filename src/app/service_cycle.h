#pragma once

namespace qs_ns {

/// Serves the bus for ever, one cycle after the other: connects, stands aside where a test set-up
/// has the name, else builds the service, serves until told to leave, tears down, waits 20 s. Main
/// thread.
[[noreturn]] void runServiceCycles();

}  // namespace qs_ns
