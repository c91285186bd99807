#include "dbus/bus_work.h"

#include <poll.h>

#include <cctype>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "support/syslog_capture.h"

namespace {

using qs_ns::BusWork;
using Kind = BusWork::Kind;

struct BusWorkTest : testing::Test {
  bool isReadable() const {
    pollfd ready{work.descriptor(), POLLIN, 0};
    return poll(&ready, 1, 0) == 1;
  }
  BusWork work;
};

TEST_F(BusWorkTest, RunsInOrderAndTheSignalsAloneWhereAskedToAndIsReadableUntilThen) {
  EXPECT_FALSE(isReadable());
  std::string ran;
  for (const char letter : std::string("aBcDE"))
    work.post(std::islower(letter) != 0 ? Kind::reply : Kind::signal,
              [&, letter] { ran += letter; });
  work.runSignals();
  EXPECT_EQ(ran, "BDE");
  EXPECT_TRUE(isReadable()) << "the rest still waits";
  work.post(Kind::leave, [&] { ran += 'f'; });
  work.run();
  EXPECT_EQ(ran, "BDEacf");
  EXPECT_FALSE(isReadable());
}

TEST_F(BusWorkTest, WorkThatFailsOrPostsMoreStopsNothing) {
  test::clearLog();
  int ran = 0;
  work.post(Kind::reply, [] { throw std::runtime_error("no memory"); });
  work.post(Kind::reply, [&] { work.post(Kind::reply, [&] { ++ran; }); });
  work.run();
  EXPECT_EQ(test::countLog("no memory"), 1);
  EXPECT_EQ(ran, 0);
  EXPECT_TRUE(isReadable());
  work.run();
  EXPECT_EQ(ran, 1);
}

}  // namespace
