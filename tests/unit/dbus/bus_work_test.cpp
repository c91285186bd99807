#include "dbus/bus_work.h"

#include <poll.h>

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "support/background.h"
#include "support/syslog_capture.h"

namespace {

using qs_ns::BusWork;
using Kind = BusWork::Kind;

bool isReadable(const BusWork& work) {
  pollfd ready{work.descriptor(), POLLIN, 0};
  return poll(&ready, 1, 0) == 1;
}

TEST(BusWork, RunsWhatWasPostedInOrderAndIsReadableUntilThen) {
  BusWork work;
  EXPECT_FALSE(isReadable(work));
  std::string ran;
  work.post(Kind::reply, [&] { ran += 'a'; });
  work.post(Kind::signal, [&] { ran += 'b'; });
  work.post(Kind::leave, [&] { ran += 'c'; });
  EXPECT_TRUE(isReadable(work));
  work.run();
  EXPECT_EQ(ran, "abc");
  EXPECT_FALSE(isReadable(work));
}

TEST(BusWork, RunsTheSignalsAloneWhereAskedTo) {
  BusWork work;
  std::string ran;
  for (const char letter : std::string("aBcDE")) {
    work.post(std::islower(letter) != 0 ? Kind::reply : Kind::signal,
              [&ran, letter] { ran += letter; });
  }
  work.runSignals();
  EXPECT_EQ(ran, "BDE");
  EXPECT_TRUE(isReadable(work)) << "the rest still waits";
  work.run();
  EXPECT_EQ(ran, "BDEac");
}

TEST(BusWork, WorkThatFailsOrPostsMoreStopsNothing) {
  BusWork work;
  test::clearLog();
  int ran = 0;
  work.post(Kind::reply, [] { throw std::runtime_error("no memory"); });
  work.post(Kind::reply, [&] { work.post(Kind::reply, [&] { ++ran; }); });
  work.run();
  EXPECT_EQ(test::countLog("no memory"), 1);
  EXPECT_EQ(ran, 0);
  EXPECT_TRUE(isReadable(work));
  work.run();
  EXPECT_EQ(ran, 1);
}

TEST(BusWork, LosesNothingOfWhatSeveralThreadsPost) {
  BusWork work;
  constexpr int kEach = 500;
  int ran = 0;
  const auto postMany = [&] {
    for (int i = 0; i < kEach; ++i)
      work.post(Kind::signal, [&] { ++ran; });
  };
  const test::Background one(postMany);
  const test::Background two(postMany);
  while (ran < 2 * kEach) {
    pollfd ready{work.descriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 10000), 1);
    work.run();
  }
}

}  // namespace
