#include "platform/crash_report.h"

#include <backtrace.h>
#include <dlfcn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/unique_fd.h"

// Where the program's own code begins and ends. The linker chose the names.
// NOLINTBEGIN(bugprone-reserved-identifier, readability-identifier-naming)
extern "C" const char __executable_start;
extern "C" const char etext;
// NOLINTEND(bugprone-reserved-identifier, readability-identifier-naming)

namespace platform {

namespace {

struct Interrupted {
  std::uintptr_t address;
  std::uintptr_t stack;
};

// Where the thread was when the signal came; zeros on a processor that is not known here, where the
// stack begins with the handler's own frames instead.
Interrupted interruptedBy(const void* context) {
  const auto& machine = static_cast<const ucontext_t*>(context)->uc_mcontext;
#if defined(__x86_64__)
  return {static_cast<std::uintptr_t>(machine.gregs[REG_RIP]),
          static_cast<std::uintptr_t>(machine.gregs[REG_RSP])};
#elif defined(__i386__)
  return {static_cast<std::uintptr_t>(machine.gregs[REG_EIP]),
          static_cast<std::uintptr_t>(machine.gregs[REG_ESP])};
#elif defined(__arm__)
  return {machine.arm_pc, machine.arm_sp};
#elif defined(__aarch64__)
  return {machine.pc, machine.sp};
#else
  static_cast<void>(machine);
  return {};
#endif
}

bool isCode(std::uintptr_t address) {
  Dl_info module{};
  return dladdr(reinterpret_cast<void*>(address), &module) != 0;
}

bool isInProgram(std::uintptr_t address) {
  return address > reinterpret_cast<std::uintptr_t>(&__executable_start) &&
         address < reinterpret_cast<std::uintptr_t>(&etext);
}

// What abort and its callers in the C library may put on the stack, with room to spare.
constexpr std::size_t kGuessedWords = 2048;
constexpr int kMostGuesses = 32;

void ignoreError(void*, const char*, int) {}

}  // namespace

struct CrashReport::Line {
  CrashReport& report;
  const char* mark;
  bool described;
};

bool CrashReport::prepare() {
  state = backtrace_create_state(nullptr, 0, ignoreError, nullptr);
#ifdef __SANITIZE_THREAD__
  // Its functions for files hang in a signal handler, and it puts off the signal that would end
  // that.
  const auto ignore = [](void*, std::uintptr_t, const char*, int, const char*) { return 0; };
  if (state != nullptr) {
    backtrace_pcinfo(state, reinterpret_cast<std::uintptr_t>(&ignoreError), ignore, ignoreError,
                     nullptr);
  }
#endif
  return state != nullptr;
}

void CrashReport::describe(int signal, const siginfo_t& info, const void* context) {
  describeSignal(signal, info);
  const Interrupted interrupted = interruptedBy(context);
  const bool known = interrupted.stack != 0;
  frames.addresses[0] = interrupted.address;
  frames.count = 1;
  // After a jump to nowhere the unwinder would look for instructions there.
  if (!known || isCode(interrupted.address)) captureFrames();
  if (known) dropHandlersFrames(interrupted.address);
  addPlaces();
  bool reachedProgram = false;
  for (std::size_t index = 0; index < frames.count; ++index) {
    char mark[24];
    std::snprintf(mark, sizeof mark, "#%zu", index);
    describeFrame(mark, frames.addresses[index]);
    reachedProgram = reachedProgram || isInProgram(frames.addresses[index]);
  }
  if (reachedProgram || !known) return;
  describeGuesses(reinterpret_cast<const std::uintptr_t*>(interrupted.stack), kGuessedWords);
}

// glibc's abort cannot be unwound on ARM, nor a jump to nowhere anywhere. What lies on the stack
// and points into the program was mostly put there by a call. Should the stack end before the words
// do, the lines up to there are the report.
__attribute__((no_sanitize("address", "thread"))) void CrashReport::describeGuesses(
    const std::uintptr_t* words, std::size_t count) {
  int guesses = 0;
  for (std::size_t index = 0; index < count && guesses < kMostGuesses; ++index) {
    if (!isInProgram(words[index])) continue;
    describeFrame("#?", words[index] - 1);
    ++guesses;
  }
}

void CrashReport::describeSignal(int signal, const siginfo_t& info) {
  char thread[16] = {};
  prctl(PR_GET_NAME, thread);
  if (info.si_code <= 0) {
    add("crash: SIG%s from process %d in thread %d \"%s\"", sigabbrev_np(signal), info.si_pid,
        gettid(), thread);
  } else {
    add("crash: SIG%s at address %p in thread %d \"%s\"", sigabbrev_np(signal), info.si_addr,
        gettid(), thread);
  }
}

void CrashReport::captureFrames() {
  const auto store = [](void* data, std::uintptr_t address) {
    auto& found = *static_cast<Frames*>(data);
    // The unwinder's mark for the end of the stack.
    if (address == static_cast<std::uintptr_t>(-1)) return 1;
    found.addresses[found.count++] = address;
    return found.count == found.addresses.size() ? 1 : 0;
  };
  backtrace_simple(state, 0, store, ignoreError, &frames);
}

// All in one line before any of them has a name: the names take their time, the first one that of
// reading all debug information. addr2line knows these numbers.
void CrashReport::addPlaces() {
  constexpr std::size_t kMost = 16;
  std::array<char, kMost * 2 * (sizeof(std::uintptr_t) + 1) + 1> places{};
  std::size_t length = 0;
  for (std::size_t index = 0; index < std::min(frames.count, kMost); ++index) {
    if (!isInProgram(frames.addresses[index])) continue;
    const auto place = static_cast<std::size_t>(
        frames.addresses[index] - reinterpret_cast<std::uintptr_t>(&__executable_start));
    length += static_cast<std::size_t>(
        std::snprintf(places.data() + length, places.size() - length, " %zx", place));
  }
  if (length != 0) add("crash: places in the program:%s", places.data());
}

// The unwinder starts at the handler's own frames, which say nothing: the stack begins where the
// signal came (on ARM the unwinder gives the byte before). Where it did not get past the handler,
// only that place is known.
void CrashReport::dropHandlersFrames(std::uintptr_t interrupted) {
  const auto begin = frames.addresses.begin();
  const auto end = begin + static_cast<std::ptrdiff_t>(frames.count);
  const auto again = std::find_if(
      begin + 1, end, [=](std::uintptr_t address) { return interrupted - address <= 1; });
  if (again != end) std::copy(again + 1, end, begin + 1);
  frames.count = std::max<std::size_t>(1, static_cast<std::size_t>(end - again));
}

void CrashReport::describeFrame(const char* mark, std::uintptr_t address) {
  // Called once for each function that was inlined at this place, the innermost first.
  const auto source = [](void* data, std::uintptr_t, const char* file, int line,
                         const char* function) {
    auto& frame = *static_cast<Line*>(data);
    if (function == nullptr || file == nullptr) return 0;
    frame.report.add("crash: %s %s at %s:%d", frame.mark, function, file, line);
    frame.described = true;
    return 0;
  };
  Line frame{*this, mark, false};
  backtrace_pcinfo(state, address, source, ignoreError, &frame);
  if (!frame.described) describeWithoutSource(mark, address);
}

// Libraries come without debug information: their symbols, and the place in the file, from which
// debug information kept elsewhere gives the line.
void CrashReport::describeWithoutSource(const char* mark, std::uintptr_t address) {
  const auto keepName = [](void* data, std::uintptr_t, const char* name, std::uintptr_t,
                           std::uintptr_t) { *static_cast<const char**>(data) = name; };
  const char* name = nullptr;
  backtrace_syminfo(state, address, keepName, ignoreError, &name);
  Dl_info module{};
  if (dladdr(reinterpret_cast<void*>(address), &module) == 0) {
    add("crash: %s %#zx", mark, static_cast<std::size_t>(address));
    return;
  }
  add("crash: %s %s in %s+%#zx", mark, name != nullptr ? name : "?", module.dli_fname,
      static_cast<std::size_t>(address - reinterpret_cast<std::uintptr_t>(module.dli_fbase)));
}

// What does not fit any more is left out.
void CrashReport::add(const char* format, ...) {
  const std::size_t begin = written.load();
  const std::size_t space = std::min<std::size_t>(text.size() - begin, 512);
  if (space == 0) return;
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text.data() + begin, space, format, arguments);
  va_end(arguments);
  if (length < 0) return;
  written = begin + std::min(static_cast<std::size_t>(length) + 1, space);
}

const char* CrashReport::next(std::size_t& position) const {
  if (position >= written.load()) return nullptr;
  const char* line = text.data() + position;
  position += std::strlen(line) + 1;
  return line;
}

void CrashReport::log() {
  std::size_t position = sent.load();
  while (const char* line = next(position)) {
    syslog(LOG_CRIT, "%s", line);
    sent = position;
  }
}

void CrashReport::logDirectly(const char* socketPath) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socketPath, sizeof address.sun_path - 1);
  const UniqueFd channel(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  std::size_t position = sent.load();
  while (const char* line = next(position)) {
    char message[600];
    const int length = std::snprintf(message, sizeof message, "<%d>quillspeak[%d]: %s",
                                     LOG_LOCAL0 | LOG_CRIT, getpid(), line);
    sendto(channel.get(), message, static_cast<std::size_t>(length), 0,
           reinterpret_cast<const sockaddr*>(&address), sizeof address);
    sent = position;
  }
}

}  // namespace platform
