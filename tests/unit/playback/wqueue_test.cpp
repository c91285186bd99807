#include "playback/wqueue.h"

#include <chrono>
#include <functional>
#include <memory>

#include <gtest/gtest.h>

#include "support/background.h"
#include "support/fake_clock.h"

namespace {

using namespace std::chrono_literals;
using qs_ns::TakeResult;
using Queue = qs_ns::wqueue<std::unique_ptr<int>>;

int valueOf(const std::unique_ptr<int>& item) {
  return item != nullptr ? *item : -1;
}

void fill(Queue& queue, std::initializer_list<int> values) {
  for (const int value : values)
    queue.add(std::make_unique<int>(value));
}

TEST(BlockingQueue, HandsOutOldestNewestOrAChosenItem) {
  Queue queue;
  fill(queue, {1, 2, 3, 4, 5});
  EXPECT_EQ(valueOf(queue.remove()), 1);
  EXPECT_EQ(valueOf(queue.removeLast()), 5);
  EXPECT_EQ(valueOf(queue.removeFirst([](int value) { return value > 2; })), 3);
  EXPECT_EQ(queue.removeFirst([](int value) { return value > 9; }), nullptr);
  const int stranger = 2;
  EXPECT_EQ(queue.removeItem(&stranger), nullptr);
  EXPECT_EQ(queue.size(), 2);
  EXPECT_EQ(valueOf(queue.tryRemove()), 2);
  EXPECT_EQ(valueOf(queue.tryRemove()), 4);
  EXPECT_EQ(queue.tryRemove(), nullptr);
  EXPECT_EQ(queue.removeLast(), nullptr);
}

TEST(BlockingQueue, GivesWhatWasQueuedBeforeTheExhaustedMarkAndThenNothing) {
  Queue queue;
  fill(queue, {1, 2, 3});
  queue.markExhausted();
  EXPECT_EQ(valueOf(queue.remove()), 1);
  std::unique_ptr<int> item;
  EXPECT_EQ(queue.removeTimed(item), TakeResult::item);
  EXPECT_EQ(valueOf(item), 2);
  EXPECT_TRUE(queue.waitForItem());
  EXPECT_EQ(valueOf(queue.remove()), 3);
  EXPECT_EQ(queue.remove(), nullptr);
  EXPECT_FALSE(queue.waitForItem());
  EXPECT_EQ(queue.removeTimed(item), TakeResult::exhausted);
}

TEST(BlockingQueue, WakesABlockedTakerWithAnItemOrTheExhaustedMark) {
  Queue queue;
  test::Background taken([&] { return valueOf(queue.remove()); });
  EXPECT_FALSE(taken.endsWithoutSleep());
  fill(queue, {8});
  EXPECT_EQ(taken.get(), 8);
  test::Background ended([&] { return valueOf(queue.remove()); });
  EXPECT_FALSE(ended.endsWithoutSleep());
  queue.markExhausted();
  EXPECT_EQ(ended.get(), -1);
}

TEST(BlockingQueue, TimedTakeEndsAfterTenMillisecondsOrWithAnItem) {
  test::FakeClock clock;
  Queue queue;
  std::unique_ptr<int> item;
  test::Background timedOut([&] { return queue.removeTimed(item); });
  EXPECT_EQ(clock.advanceToNextDeadline(), 10ms);
  EXPECT_EQ(timedOut.get(), TakeResult::timedOut);
  test::Background taken([&] { return queue.removeTimed(item); });
  EXPECT_FALSE(taken.endsWithoutSleep());
  fill(queue, {4});
  EXPECT_EQ(taken.get(), TakeResult::item);
  EXPECT_EQ(valueOf(item), 4);
}

TEST(BlockingQueue, WaitForRoomEndsWithATakeAStopOrTheExhaustedMark) {
  std::atomic<bool> stopped{false};
  const std::function<void(Queue&)> ends[] = {
      [](Queue& queue) { queue.removeLast(); },
      [](Queue& queue) { queue.markExhausted(); },
      [&](Queue& queue) {
        stopped = true;
        queue.wake();
      },
  };
  for (const auto& end : ends) {
    SCOPED_TRACE(&end - ends);
    Queue queue;
    queue.add(std::make_unique<int>(1), 10);
    queue.waitForRoom(10, stopped);
    queue.add(std::make_unique<int>(2), 1);
    test::Background waits([&] { queue.waitForRoom(10, stopped); });
    EXPECT_FALSE(waits.endsWithoutSleep());
    end(queue);
    waits.get();
  }
}

}  // namespace
