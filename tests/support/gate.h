#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include <gtest/gtest.h>

namespace test {

/// A counter that can be waited for. A wait fails after a minute, which is only for what hangs.
class Tally {
 public:
  void add() {
    const std::lock_guard lock(mutex);
    ++count;
    changed.notify_all();
  }

  int value() const {
    const std::lock_guard lock(mutex);
    return count;
  }

  void await(int least) {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, std::chrono::minutes(1), [&] { return count >= least; }));
  }

 private:
  mutable std::mutex mutex;
  std::condition_variable changed;
  int count = 0;
};

/// Holds a thread at a place until the test lets it go on, so that a race happens in the order that
/// the test is about.
class Gate {
 public:
  /// On the thread under test: says "here" and waits until the gate is open.
  void pass() {
    arrivals.add();
    isOpen.wait(false);
  }

  /// On the test's thread: waits until `count` passes have begun.
  void awaitArrival(int count = 1) { arrivals.await(count); }

  void open() {
    isOpen = true;
    isOpen.notify_all();
  }

 private:
  Tally arrivals;
  std::atomic<bool> isOpen{false};
};

}  // namespace test
