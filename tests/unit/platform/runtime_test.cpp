#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/clock.h"
#include "platform/condition.h"
#include "platform/mutex.h"
#include "platform/thread.h"
#include "support/background.h"

namespace {

using platform::Condition;
using platform::Mutex;
using platform::MutexLock;

/// A thread whose loop is a function of the test.
class Worker : public platform::Thread {
 public:
  explicit Worker(std::function<bool()> work) : pass(std::move(work)) {}

 private:
  bool threadLoop() override { return pass(); }

  std::function<bool()> pass;
};

TEST(Mutex, IsHandedToTheWaiterOnUnlock) {
  Mutex mutex(true);
  bool waiterHadIt = false;
  mutex.lock();
  test::Background waiter([&] {
    const MutexLock lock(mutex);
    waiterHadIt = true;
  });
  EXPECT_FALSE(waiter.endsWithoutSleep());
  mutex.unlock();
  // A default mutex would be had again at once, with the waiter still on its way.
  mutex.lock();
  EXPECT_TRUE(waiterHadIt);
  mutex.unlock();
}

TEST(Condition, WakesOnNotifyAndGivesUpAtTheDeadline) {
  Mutex mutex(true);
  Condition condition;
  {
    const MutexLock lock(mutex);
    const auto now = platform::clock().now();
    EXPECT_FALSE(platform::clock().waitUntil(condition, mutex, now - std::chrono::seconds(1)));
    EXPECT_FALSE(platform::clock().waitUntil(condition, mutex, now + std::chrono::milliseconds(1)));
    EXPECT_GE(platform::clock().now(), now + std::chrono::milliseconds(1));
  }
  // "For ever" as a deadline waits too, on 32 bits as well.
  for (const auto deadline :
       {platform::clock().now() + std::chrono::hours(1), platform::MonotonicTime::max()}) {
    bool ready = false;
    std::thread notifier;
    {
      const MutexLock lock(mutex);
      notifier = std::thread([&] {
        const MutexLock inner(mutex);
        ready = true;
        condition.notifyOne();
      });
      while (!ready)
        EXPECT_TRUE(platform::clock().waitUntil(condition, mutex, deadline));
    }
    notifier.join();
  }
}

TEST(Thread, EndsAfterThePassInWhichExitWasRequested) {
  int passes = 0;
  Worker* self = nullptr;
  Worker worker([&] {
    if (++passes == 2) self->requestExit();
    return true;
  });
  self = &worker;
  ASSERT_EQ(worker.run("worker", 0, 0), 0);
  worker.join();
  worker.join();
  EXPECT_EQ(passes, 2);

  int onlyPass = 0;
  Worker asked([&] { return ++onlyPass, true; });
  asked.requestExit();
  ASSERT_EQ(asked.run("worker", 0, 0), 0);
  asked.join();
  EXPECT_EQ(onlyPass, 1);
}

TEST(Thread, HasTheNameNiceLevelAndStackAskedFor) {
  char name[16] = {};
  int nice = 0;
  std::size_t stackBytes = 0;
  Worker worker([&] {
    pthread_getname_np(pthread_self(), name, sizeof name);
    nice = getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, &stackBytes);
    pthread_attr_destroy(&attributes);
    return false;
  });
  const int niceBefore = getpriority(PRIO_PROCESS, 0);
  ASSERT_EQ(worker.run("QS_ConvertTTSThread", niceBefore + 2, 512 * 1024), 0);
  worker.join();
  EXPECT_STREQ(name, "QS_ConvertTTSTh");
  EXPECT_EQ(nice, niceBefore + 2);
  // A sanitizer adds some of its own; the default is 8 MB.
  EXPECT_GE(stackBytes, 512U * 1024);
  EXPECT_LT(stackBytes, 2048U * 1024);
  EXPECT_EQ(getpriority(PRIO_PROCESS, 0), niceBefore);
}

// What its loop does may make another thread join and destroy it while `run` is still on its way
// out.
TEST(Thread, MayBeJoinedAndDestroyedFromTheMomentItsLoopBegins) {
  for (int round = 0; round < 200; ++round) {
    std::promise<void> begun;
    auto worker = std::make_unique<Worker>([&begun] { return begun.set_value(), false; });
    Worker& started = *worker;
    std::thread joiner([&begun, owned = std::move(worker)] {
      begun.get_future().wait();
      owned->join();
    });
    ASSERT_EQ(started.run("worker", 0, 0), 0);
    joiner.join();
  }
}

}  // namespace
