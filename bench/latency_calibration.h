#pragma once

#include <vector>

#include "latency_recorder.h"

namespace bench {

/// Plays clicks through the sink and holds, for each, its moment by the recorder against the moment
/// at which the sound server says that it is heard: recorder less server, in milliseconds. Takes
/// two seconds; nothing else may sound. Throws where clicks are missing.
std::vector<double> compareClicks(const PulseConnection& connection, MonitorRecorder& recorder);

}  // namespace bench
