#pragma once

#include <atomic>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>

namespace test {

/// Runs a function on a thread of its own, from construction on. (`std::async` would do, but part
/// of it lives in the C++ runtime, which the thread sanitizer cannot see into.)
template <typename Function>
class Background {
 public:
  using Result = std::invoke_result_t<Function>;

  explicit Background(Function function)
      : thread([this, work = std::move(function)]() mutable {
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

  /// Waits for the end; what the function returned.
  Result get() {
    thread.join();
    if constexpr (!std::is_void_v<Result>) return std::move(*result);
  }

 private:
  using Stored = std::conditional_t<std::is_void_v<Result>, char, Result>;

  std::atomic<bool> ended{false};
  std::optional<Stored> result;
  std::thread thread;
};

}  // namespace test
