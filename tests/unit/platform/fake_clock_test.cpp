#include "support/fake_clock.h"

#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/clock.h"

namespace {

using namespace std::chrono_literals;
using platform::Condition;
using platform::Mutex;
using platform::MutexLock;

TEST(FakeClock, StandsInForTheMachinesClockWhileItLives) {
  const auto before = platform::clock().now();
  {
    test::FakeClock clock;
    const auto start = platform::clock().now();
    clock.advance(20s);
    EXPECT_EQ(platform::clock().now() - start, 20s);
  }
  EXPECT_LT(platform::clock().now() - before, 20s);
}

TEST(FakeClock, EndsASleepOnlyWhenItsTimeHasCome) {
  test::FakeClock clock;
  const auto start = clock.now();
  std::vector<std::chrono::nanoseconds> woken;
  std::thread sleeper([&] {
    for (const auto duration : {5s, 15s}) {
      platform::clock().sleepFor(duration);
      woken.emplace_back(platform::clock().now() - start);
    }
  });
  EXPECT_EQ(clock.advanceToNextDeadline(), 5s);
  EXPECT_EQ(clock.advanceToNextDeadline(), 15s);
  sleeper.join();
  EXPECT_EQ(woken, (std::vector<std::chrono::nanoseconds>{5s, 20s}));
}

/// One wait of 5 s on another thread, on a condition that is gone as soon as the wait has ended.
class Waiting {
 public:
  Waiting() : thread([this] { wait(); }) {}
  ~Waiting() {
    if (thread.joinable()) thread.join();
  }

  void notify() {
    for (bool done = false; !done;) {
      const std::lock_guard alive(destruction);
      if (pair == nullptr) return;
      const MutexLock lock(pair->mutex);
      if (pair->waiting) pair->condition.notifyOne();
      done = pair->waiting;
    }
  }
  bool result() {
    thread.join();
    return notified;
  }

 private:
  struct Pair {
    Mutex mutex{true};
    Condition condition;
    bool waiting = false;
  };

  void wait() {
    {
      const MutexLock lock(pair->mutex);
      pair->waiting = true;
      notified =
          platform::clock().waitUntil(pair->condition, pair->mutex, platform::clock().now() + 5s);
    }
    const std::lock_guard alive(destruction);
    pair.reset();
  }

  std::mutex destruction;
  std::unique_ptr<Pair> pair = std::make_unique<Pair>();
  bool notified = false;
  std::thread thread;
};

TEST(FakeClock, TellsAWaitThatRanOutFromANotifiedOne) {
  test::FakeClock clock;
  Waiting ranOut;
  EXPECT_EQ(clock.advanceToNextDeadline(), 5s);
  EXPECT_FALSE(ranOut.result());
  Waiting notified;
  notified.notify();
  EXPECT_TRUE(notified.result());

  Mutex mutex(true);
  Condition condition;
  const MutexLock lock(mutex);
  EXPECT_FALSE(clock.waitUntil(condition, mutex, clock.now()));
}

TEST(FakeClock, LetsGoOfAWaitBeforeItsConditionDies) {
  test::FakeClock clock;
  for (int round = 0; round < 300; ++round) {
    Waiting waiting;
    std::thread notifier([&waiting] { waiting.notify(); });
    clock.advance(5s);
    notifier.join();
  }
}

}  // namespace
