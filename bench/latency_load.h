#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "latency_stand.h"

namespace bench {

/// What loads a daemon while it lives: conversions of the largest text, one after the other, and
/// 100 calls a second that are no plays, on a connection and a thread of their own.
class Load {
 public:
  explicit Load(const Stand& stand);
  ~Load();
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

  /// What became of it so far.
  double callsPerSecond() const;
  int conversions() const { return converted; }
  int failures() const { return failed; }

 private:
  void run(const std::string& busAddress, const std::string& file);

  std::atomic<bool> ends{false};
  std::atomic<int> calls{0};
  std::atomic<int> converted{0};
  std::atomic<int> failed{0};
  const Moment begun = Clock::now();
  std::thread thread;
};

}  // namespace bench
