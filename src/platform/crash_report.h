#pragma once

#include <array>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>

struct backtrace_state;

namespace platform {

/// What is said about one crash: the signal, and the stack of the thread that it hit, by name and
/// line. Written and sent from inside a signal handler: the lines lie in fixed memory, and GCC's
/// libbacktrace, which reads the names, maps its memory itself, so a broken heap does no harm.
///
/// (glibc's backtrace() finds no frames on ARM. Names stay mangled, since undoing that allocates;
/// c++filt reads them.)
class CrashReport {
 public:
  /// Once, before any of the others. False where it cannot be done. Debug information is not read
  /// before the crash: it would stay in memory, 20 MB of it.
  bool prepare();

  /// Writes the lines, for the arguments of the signal handler that calls it, on the crashed
  /// thread. Once.
  void describe(int signal, const siginfo_t& info, const void* context);

  /// Adds a line, marked as a guess, for each of `count` words that is an address in the program's
  /// own code: for a stack that cannot be unwound.
  void describeGuesses(const std::uintptr_t* words, std::size_t count);

  /// Sends to syslog the lines that have not been sent. May hang where the crash came inside
  /// syslog, whose lock is then never given back.
  void log();

  /// The same, past the C library and its locks: a datagram for each line to syslog's own socket at
  /// `socketPath`. Never blocks. Any thread, also while another one hangs in `log`.
  void logDirectly(const char* socketPath);

 private:
  struct Frames {
    std::array<std::uintptr_t, 64> addresses;
    std::size_t count;
  };
  struct Line;

  void describeSignal(int signal, const siginfo_t& info);
  void captureFrames();
  void addPlaces();
  void dropHandlersFrames(std::uintptr_t interrupted);
  void describeFrame(const char* mark, std::uintptr_t address);
  void describeWithoutSource(const char* mark, std::uintptr_t address);
  [[gnu::format(printf, 2, 3)]] void add(const char* format, ...);
  const char* next(std::size_t& position) const;

  backtrace_state* state = nullptr;
  Frames frames{};
  std::array<char, 32 * 1024> text{};   // lines, each with its NUL
  std::atomic<std::size_t> written{0};  // bytes of `text` in use
  std::atomic<std::size_t> sent{0};     // bytes of `text` that syslog has
};

}  // namespace platform
