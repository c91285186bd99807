#pragma once

namespace qs_ns {

/// The test tool behind the command line: synthesises one text into a file and, for "play", sounds
/// the media server's tones. Main thread; blocks until done. What went wrong is printed and logged;
/// the process ends with 0 all the same.
void runCommandLine(int argc, char** argv);

}  // namespace qs_ns
