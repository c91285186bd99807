#pragma once

#include <sys/types.h>

#include <cstdint>

/// The trace settings of a process.
struct TraceValues {
  std::int32_t baseseverity;
  std::int32_t persistent;
  std::int32_t tracemask;
  std::int32_t option;
  std::int32_t data;
};

// What the platform does for a service process. Main thread, except where said; none blocks.

/// Registers this process under `name`: 0 when it is the only one, non-zero when another running
/// process holds the registration (a file left by a crash does not count). Where it cannot be
/// registered at all, for want of a folder that can be written and trusted, the log says so and the
/// result is 0: speech without that protection is better than none. 0 again when repeated.
int create_varrunpid(const char* name);
/// Takes the registration back. Harmless when repeated, or when nothing was registered. Any thread.
void unlink_varrunpid(const char* name);

/// Tells the restart manager that the process is starting; 0 on success, also where there is no
/// manager.
int restart_connect(const char* name);
/// Tells the restart manager that the process is up and does what it is for. Harmless when
/// repeated, or where there is no manager. Any thread.
void restart_ready();
/// Tells the restart manager that the process does not hang; harmless where there is none, or where
/// it does not watch. Only from the thread that must not hang.
void restart_alive();
/// Tells the restart manager that the process is going. Harmless when repeated. Any thread.
int restart_disconnect(const char* name, int reserved);

/// From here on a crash (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT) on any thread leaves a
/// symbolised stack in syslog before the process dies of its signal, within 2 s whatever state it
/// is in. A stack that overflows is reported on the main thread and those of `platform/thread.h`. A
/// signal that has a handler already (a sanitizer's) keeps it. -1 on failure.
int initCrashHandler();

/// Fills `values` from the trace file, named by QUILLSPEAK_TRACE or /etc/quillspeak/trace.conf, and
/// sets the process's log mask to `baseseverity` (0 to 7, 6 by default). What is missing or no
/// number of 32 bits is 0; hexadecimal ones may use all 32. Any thread.
void settrcvalues(const char* name, TraceValues* values);

/// Names the thread with kernel id `thread` of this process; 15 bytes of the name are kept. Any
/// thread.
void pthread_name_np(pid_t thread, const char* name);
