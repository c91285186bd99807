#pragma once

namespace qs_ns {

/// Where the automation feature is on: makes the serving bus loop leave about a second from now, so
/// that the answer to the call that asked for it goes out first. Never blocks; where there is no
/// thread for the wait, that is logged and nothing happens. Calls that come meanwhile change
/// nothing. Defined by the process, which owns the loop.
void qs_disconnectDBus();

}  // namespace qs_ns
