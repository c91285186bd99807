#pragma once

namespace qs_ns {

/// Where the automation feature is on: makes the serving bus loop leave about a second from now, so
/// that the answer to the call that asked for it goes out first. Never blocks. Defined by the
/// process, which owns the loop.
void qs_disconnectDBus();

}  // namespace qs_ns
