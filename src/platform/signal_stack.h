#pragma once

#include <cstddef>
#include <memory>

namespace platform {

/// What a signal handler of this layer may need: the crash report symbolises on it.
inline constexpr std::size_t kSignalStackBytes = 64 * 1024;

/// Lets the calling thread's signal handlers run in `memory`, of `kSignalStackBytes`, so that a
/// crash by stack overflow can still be reported. False where the thread has such a stack already
/// (a sanitizer's), which stays.
bool useSignalStack(std::byte* memory);

/// The same with memory of its own, for the life of this object, which ends on the same thread.
class SignalStack {
 public:
  SignalStack();
  ~SignalStack();
  SignalStack(const SignalStack&) = delete;
  SignalStack& operator=(const SignalStack&) = delete;

 private:
  std::unique_ptr<std::byte[]> memory;
  bool used = false;
};

}  // namespace platform
