#include <functional>
#include <future>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "platform/mutex.h"
#include "platform/thread.h"
#include "support/background.h"

namespace {

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

TEST(Thread, MakesOnePassThoughItIsAskedToExitBefore) {
  int passes = 0;
  Worker asked([&] { return ++passes, true; });
  asked.requestExit();
  ASSERT_EQ(asked.run("worker", 0, 0), 0);
  asked.join();
  EXPECT_EQ(passes, 1);
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
