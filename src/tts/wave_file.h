#pragma once

#include <string>

#include <flite/flite.h>

namespace qs_ns {

/// Writes `wave` as a RIFF WAVE file at its own rate, to a path that `openOutputFile` opens. 0, or
/// the errno value of what went wrong; a file that was begun then stays as it is. Any thread.
int saveWaveFile(cst_wave& wave, const std::string& path);

}  // namespace qs_ns
