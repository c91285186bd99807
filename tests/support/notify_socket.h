#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "platform/unique_fd.h"

namespace test {

/// Stands for the restart manager: what a process tells it arrives here.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& where) : path(where) {
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(own.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) std::abort();
  }

  /// Blocks for the next message; "" where none comes within `patience`.
  std::string next(std::chrono::milliseconds patience = std::chrono::seconds(10)) const {
    pollfd arrival{own.get(), POLLIN, 0};
    if (poll(&arrival, 1, static_cast<int>(patience.count())) <= 0) return "";
    char message[256];
    const ssize_t length = recv(own.get(), message, sizeof message, 0);
    return {message, static_cast<std::size_t>(length > 0 ? length : 0)};
  }
  /// How many messages have come up to now, all of them taken out; those that begin with `text`.
  int take(const std::string& text) const {
    int count = 0;
    for (std::string one = next({}); !one.empty(); one = next({}))
      count += one.starts_with(text) ? 1 : 0;
    return count;
  }

  const std::string path;

 private:
  const platform::UniqueFd own{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

}  // namespace test
