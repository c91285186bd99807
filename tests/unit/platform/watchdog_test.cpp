#include "platform/watchdog.h"

#include <poll.h>

#include <gtest/gtest.h>

#include "support/watched_clock.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(Watchdog, IsFedThroughASleepAtHalfItsLimitAndAtTheEnd) {
  test::WatchedClock clock(seconds(6));
  platform::sleepFed(seconds(20));
  const std::pair<std::size_t, seconds> kExpected[] = {{6, seconds(3)}, {1, seconds(2)}};
  std::size_t at = 0;
  for (const auto& [count, duration] : kExpected) {
    for (std::size_t i = 0; i < count; ++i, ++at) {
      ASSERT_LT(at, clock.sleeps.size());
      EXPECT_EQ(clock.sleeps[at].duration, duration);
      EXPECT_TRUE(clock.sleeps[at].fed) << "sleep " << at;
    }
  }
  EXPECT_EQ(clock.sleeps.size(), at);
  EXPECT_EQ(clock.manager.take("WATCHDOG=1"), 1);
}

TEST(Watchdog, IsFedOnlyWhenItsTimeHasComeAndNotAtAllWhereNobodyWatches) {
  {
    const test::WatchedClock clock(milliseconds(100));
    const platform::Watchdog watchdog;
    watchdog.feedWhenDue();
    EXPECT_EQ(clock.manager.take(""), 0) << "before its time";
    pollfd due{watchdog.descriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&due, 1, 10'000), 1);
    watchdog.feedWhenDue();
    watchdog.feedWhenDue();
    EXPECT_EQ(clock.manager.take("WATCHDOG=1"), 1);
  }
  test::WatchedClock clock(seconds(0));
  EXPECT_EQ(platform::Watchdog().descriptor(), -1);
  platform::sleepFed(seconds(20));
  ASSERT_EQ(clock.sleeps.size(), 1U);
  EXPECT_EQ(clock.sleeps[0].duration, seconds(20));
  EXPECT_EQ(clock.manager.take(""), 0);
}

}  // namespace
