// A program that crashes in the way its argument says, with the crash handler installed. It writes
// one byte to its standard output just before.

#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "platform/process_services.h"
#include "platform/thread.h"

namespace {

bool crashInReport = false;

void announce() {
  [[maybe_unused]] const ssize_t count = write(STDOUT_FILENO, "!", 1);
}

volatile std::uintptr_t nowhere = 8;

// There is nothing to unwind where this ends up.
[[gnu::noinline]] void callNowhere() {
  announce();
  reinterpret_cast<void (*)()>(nowhere)();
  announce();
}

[[gnu::noinline]] int recurse(int depth) {
  volatile char frame[4096];
  frame[depth % 4096] = static_cast<char>(depth);
  return depth < 0 ? 0 : recurse(depth + 1) + frame[depth % 4096];
}

void overflowStack() {
  announce();
  recurse(0);
}

// glibc finds out inside free, with the heap's lock held.
void breakHeap() {
  constexpr std::size_t kBytes = 4000;
  auto* blocks = static_cast<unsigned char*>(std::malloc(2 * kBytes));
  volatile std::size_t before = kBytes;
  std::memset(blocks + before, 0x41, kBytes);
  announce();
  std::free(blocks + before + 16);  // NOLINT(clang-analyzer-unix.Malloc): the very fault wanted
}

// With the lock of syslog held.
void crashInSyslog() {
  announce();
  ::syslog(LOG_ERR, "%s", reinterpret_cast<const char*>(nowhere));
}

void abortAndCrashInReport() {
  crashInReport = true;
  announce();
  std::abort();
}

class OverflowingThread : public platform::Thread {
  bool threadLoop() override {
    overflowStack();
    return false;
  }
};

void overflowThreadStack() {
  OverflowingThread thread;
  thread.run("overflowing", 0, 0);
  thread.join();
}

void raiseIllegal() {
  announce();
  raise(SIGILL);
}

const std::map<std::string, void (*)()> kCrashes = {
    {"jump", callNowhere},
    {"ill", raiseIllegal},
    {"overflow", overflowStack},
    {"overflow on a thread", overflowThreadStack},
    {"broken heap", breakHeap},
    {"inside syslog", crashInSyslog},
    {"inside the report", abortAndCrashInReport},
};

}  // namespace

// The report goes through here.
void syslog(int priority, const char* format, ...) {
  if (crashInReport) raise(SIGFPE);
  va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}

int main(int, char** arguments) {
  const rlimit noCore{};
  setrlimit(RLIMIT_CORE, &noCore);
  openlog("crash_subject", LOG_PID | LOG_NDELAY, LOG_USER);
  if (initCrashHandler() != 0) return 2;
  kCrashes.at(arguments[1])();
  return 3;
}
