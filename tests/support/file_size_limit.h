#pragma once

#include <sys/resource.h>

#include <csignal>

namespace test {

/// No file of this process may grow beyond `bytes`, as on a disk that is full there.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit limit{bytes, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);
  }

 private:
  rlimit before{};
  void (*handler)(int);
};

}  // namespace test
