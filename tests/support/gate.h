#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include <gtest/gtest.h>

namespace test {

/// Holds a thread at a place until the test lets it go on, so that a race happens in the order that
/// the test is about.
class Gate {
 public:
  /// On the thread under test: says "here" and waits until the gate is open.
  void pass() {
    std::unique_lock lock(mutex);
    ++arrived;
    changed.notify_all();
    while (!isOpen)
      changed.wait(lock);
  }

  /// On the test's thread: waits until `count` passes have begun; fails after 10 s.
  void awaitArrival(int count = 1) {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, kDeadline, [&] { return arrived >= count; }));
  }

  void open() {
    const std::lock_guard lock(mutex);
    isOpen = true;
    changed.notify_all();
  }

 private:
  static constexpr std::chrono::seconds kDeadline{10};

  std::mutex mutex;
  std::condition_variable changed;
  int arrived = 0;
  bool isOpen = false;
};

/// A counter that can be waited for.
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
    ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(10), [&] { return count >= least; }));
  }

 private:
  mutable std::mutex mutex;
  std::condition_variable changed;
  int count = 0;
};

}  // namespace test
