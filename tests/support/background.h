#pragma once

#include <unistd.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

#include "support/scratch_folder.h"

namespace test {

/// Runs a function on a thread of its own, from construction on. (`std::async` would do, but part
/// of it lives in the C++ runtime, which the thread sanitizer cannot see into.)
template <typename Function>
class Background {
 public:
  using Result = std::invoke_result_t<Function>;

  explicit Background(Function function)
      : thread([this, work = std::move(function)]() mutable {
          id = gettid();
          if constexpr (std::is_void_v<Result>) {
            work();
          } else {
            result = work();
          }
          ended = true;
        }) {}
  ~Background() {
    if (thread.joinable()) thread.join();
  }

  bool hasEnded() const { return ended; }

  /// Returns once the function has ended (true) or sleeps on a lock, a condition or a pause
  /// (false): once it did so at many looks in a row, as none does that waits for the recorder of
  /// the log or a lock of a sanitizer's.
  bool endsWithoutSleep() const {
    for (int looks = 0; looks < 20 && !ended; std::this_thread::yield())
      looks = sleepsOnALock() ? looks + 1 : 0;
    return ended;
  }

  /// Waits for the end; what the function returned.
  Result get() {
    thread.join();
    if constexpr (!std::is_void_v<Result>) return std::move(*result);
  }

 private:
  bool sleepsOnALock() const {
    const std::string task = "/proc/self/task/" + std::to_string(id);
    const std::string status = readFile(task + "/stat");
    const std::size_t name = status.rfind(')');
    if (name == std::string::npos || status[name + 2] != 'S') return false;
    // Where in the kernel it waits; "0" where that is kept secret. An emulator's pause is a
    // sigsuspend.
    const std::string place = readFile(task + "/wchan");
    return place == "0" || place.find("futex") != std::string::npos ||
           place.find("rt_mutex") != std::string::npos ||
           place.find("pause") != std::string::npos ||
           place.find("sigsuspend") != std::string::npos;
  }

  using Stored = std::conditional_t<std::is_void_v<Result>, char, Result>;

  std::atomic<pid_t> id{0};
  std::atomic<bool> ended{false};
  std::optional<Stored> result;
  std::thread thread;
};

}  // namespace test
