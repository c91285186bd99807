#pragma once

#include <unistd.h>

#include <utility>

namespace platform {

/// Owns a file descriptor; -1 is none.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int owned) : descriptor(owned) {}
  ~UniqueFd() {
    if (descriptor >= 0) close(descriptor);
  }
  UniqueFd(UniqueFd&& other) noexcept : descriptor(std::exchange(other.descriptor, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(descriptor, other.descriptor);
    return *this;
  }

  int get() const { return descriptor; }
  /// Hands the descriptor over.
  int release() { return std::exchange(descriptor, -1); }
  explicit operator bool() const { return descriptor >= 0; }

 private:
  int descriptor = -1;
};

}  // namespace platform
