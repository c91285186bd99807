#include "app/process.h"

#include <poll.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/audio/stream_role.h"
#include "platform/heap.h"
#include "platform/process_services.h"
#include "platform/thread.h"

// There in the builds with these instruments, which report at a normal exit that we do not take.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier): the compiler's names
void __lsan_do_leak_check() __attribute__((weak));
void __gcov_dump() __attribute__((weak));
// NOLINTEND(bugprone-reserved-identifier)
}

namespace qs_ns {

namespace {

constexpr char kName[] = "quillspeak";
// LOG_PID and LOG_NDELAY, and a bit that the telephone's syslog knows.
constexpr int kSyslogOptions = 0x49;

std::atomic<bool> registered{false};
std::atomic_flag ending = ATOMIC_FLAG_INIT;

sigset_t handledSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  sigaddset(&signals, SIGUSR2);
  return signals;
}

// Signals are taken by a thread of their own, since nothing that they ask for is safe in a handler.
void takeSignals() {
  const sigset_t signals = handledSignals();
  for (;;) {
    int signal = 0;
    if (sigwait(&signals, &signal) != 0) continue;
    if (signal == SIGTERM) {
      catchTerm(signal);
    } else {
      catchHup(signal);
    }
  }
}

/// Nobody may read it any more, or another thread may be waiting for the reader inside a printf.
void flushOutput() {
  constexpr int kPatienceMs = 500;
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  if (poll(&output, 1, kPatienceMs) > 0 && ftrylockfile(stdout) == 0) std::fflush(stdout);
}

void logTraceSettings() {
  TraceValues trace{};
  settrcvalues(kName, &trace);
  syslog(LOG_DEBUG,
         "\tbaseseverity  = %d\n\t\t\tpersistent    = %d\n\t\t\ttracemask     = %05X\n"
         "\t\t\toption/data   = %X/%X (%d/%d)\n",
         trace.baseseverity, trace.persistent, static_cast<unsigned>(trace.tracemask),
         static_cast<unsigned>(trace.option), static_cast<unsigned>(trace.data), trace.option,
         trace.data);
}

}  // namespace

const char* invocationName() {
  return program_invocation_short_name;
}

void blockSignals() {
  const sigset_t signals = handledSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void startUp() {
  platform::keepHeapSmall();
  platform::audio::announceStreamRole();
  openlog(kName, kSyslogOptions, LOG_LOCAL0);
  if (create_varrunpid(invocationName()) != 0) {
    syslog(LOG_ERR, "%s: Only one instance of quillspeak can run at a time", "main");
    endProcess(EXIT_FAILURE);
  }
  registered = true;
  std::atexit(cleanup);
  // A library that calls exit (Flite does when memory runs out) takes our way out as well.
  on_exit([](int status, void*) { endProcess(status); }, nullptr);
  logTraceSettings();
  installHandlers();
  if (restart_connect(invocationName()) != 0) {
    syslog(LOG_ERR, "%s: restart_connect failed\n", "main");
  }
  if (initCrashHandler() == -1) {
    syslog(LOG_ERR, "%s: Unable to initialize the crash handler library\n", "main");
  }
  pthread_name_np(gettid(), kName);
}

void installHandlers() {
  signal(SIGPIPE, SIG_IGN);
  if (const int status = platform::startDetached("QS_Signals", takeSignals); status != 0) {
    // Without it SIGTERM would be blocked for ever.
    syslog(LOG_ERR, "%s: no thread for signals: %s", "installHandlers", std::strerror(-status));
    endProcess(EXIT_FAILURE);
  }
}

void catchTerm(int /*signal*/) {
  cleanup();
  endProcess(EXIT_FAILURE);
}

void catchHup(int /*signal*/) {
  syslog(LOG_NOTICE, "SIGNAL HUP/INITIAL TRC Processing...\n");
  logTraceSettings();
}

void cleanup() {
  unlink_varrunpid(invocationName());
  restart_disconnect(kName, 0);
}

void endProcess(int status) {
  if (ending.test_and_set()) {
    for (;;)
      pause();
  }
  if (registered) cleanup();
  flushOutput();
  if (__gcov_dump != nullptr) __gcov_dump();
  if (__lsan_do_leak_check != nullptr) __lsan_do_leak_check();
  _exit(status);
}

}  // namespace qs_ns
