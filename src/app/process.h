#pragma once

struct TraceValues;

namespace qs_ns {

/// The executable's name without its directory, as it was started.
const char* invocationName();

/// Keeps SIGTERM, SIGHUP and SIGUSR2 from the calling thread and from all that it starts, so that
/// only the signal thread takes them. First thing in `main`.
void blockSignals();

/// What every start does, in both modes: log, single instance (else the process ends with status
/// 1), clean-up at exit, trace settings, signals, restart manager, crash handler, thread name.
void startUp();

/// Starts the thread that takes SIGTERM, SIGHUP and SIGUSR2, and ignores SIGPIPE.
void installHandlers();
/// SIGTERM: the clean-up, then the end with status 1. On the signal thread.
void catchTerm(int signal);
/// SIGHUP, SIGUSR2: reads the trace settings again and logs them. On the signal thread.
void catchHup(int signal);

/// Takes back the pid registration and tells the restart manager. Harmless when repeated; any
/// thread.
void cleanup();

/// The one way out: the clean-up, standard output flushed, and the process is gone with `status`.
/// No static object is destroyed, since threads still use them. Any thread; the first caller wins
/// and the others wait for the end.
[[noreturn]] void endProcess(int status);

}  // namespace qs_ns
