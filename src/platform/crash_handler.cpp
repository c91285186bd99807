#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>

#include "platform/crash_report.h"
#include "platform/process_services.h"
#include "platform/signal_stack.h"

// How the process dies: the first thread that crashes reports, then takes the default action of its
// signal. A crash inside the report, and a report that takes too long, both end in the same way, by
// the first signal.
//
// The time limit is an alarm with a handler: SIGALRM's own default action would give the wrong
// status, and a helper thread might wait for a lock that the crashed thread holds. The kernel gives
// the alarm to any thread that lets it through, the crashed one among them.

namespace {

constexpr int kCrashSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
constexpr timeval kReportLimit{1, 0};  // half of what the process may take to die
constexpr const char* kSyslogSocket = "/dev/log";

platform::CrashReport report;
std::atomic<pid_t> crashedThread{0};
std::atomic<int> crashSignal{0};
std::atomic<int> crashesInReport{0};

void setHandler(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_ONSTACK;
  sigaction(signal, &action, nullptr);
}

void unblock(int signal) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

[[noreturn]] void die() {
  const int signal = crashSignal.load();
  setHandler(signal, SIG_DFL);
  unblock(signal);
  raise(signal);
  // The first process of a container is spared by signals of its own.
  _exit(128 + signal);
}

void onTimeUp(int) {
  report.logDirectly(kSyslogSocket);
  die();
}

void limitTime() {
  setHandler(SIGALRM, onTimeUp);
  unblock(SIGALRM);
  const itimerval limit{{}, kReportLimit};
  setitimer(ITIMER_REAL, &limit, nullptr);
}

// The report itself crashed: each time less is tried.
[[noreturn]] void endReport() {
  switch (++crashesInReport) {
    case 1:
      report.log();
      break;
    case 2:
      report.logDirectly(kSyslogSocket);
      break;
    default:
      break;
  }
  die();
}

void onCrash(int signal, siginfo_t* info, void* context) {
  const pid_t self = gettid();
  pid_t first = 0;
  if (crashedThread.compare_exchange_strong(first, self)) {
    crashSignal = signal;
    limitTime();
    report.describe(signal, *info, context);
    report.log();
    die();
  }
  if (first == self) endReport();
  // Another thread is reporting, and the process ends with it.
  while (true)
    pause();
}

// A handler that is there already belongs to a sanitizer, whose report says more.
bool install(int signal) {
  struct sigaction present {};
  if (sigaction(signal, nullptr, &present) != 0) return false;
  const bool taken = (present.sa_flags & SA_SIGINFO) != 0 || present.sa_handler != SIG_DFL;
  if (taken) return true;
  struct sigaction action {};
  action.sa_sigaction = onCrash;
  // A crash in the report must come back here rather than wait for it.
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
  return sigaction(signal, &action, nullptr) == 0;
}

}  // namespace

int initCrashHandler() {
  static const bool prepared = report.prepare();
  if (!prepared) return -1;
  // Static, since the main thread has it to the very end; the platform's threads bring their own.
  alignas(std::max_align_t) static std::byte mainThreadStack[platform::kSignalStackBytes];
  platform::useSignalStack(mainThreadStack);
  for (const int signal : kCrashSignals) {
    if (!install(signal)) return -1;
  }
  return 0;
}
