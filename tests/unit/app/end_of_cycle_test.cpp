#include <fcntl.h>
#include <unistd.h>

#include <array>

#include <gtest/gtest.h>

#include "app/bus_dispatcher.h"
#include "app/process.h"
#include "support/background.h"
#include "support/gate.h"

namespace {

using qs_ns::BusWork;
using qs_ns::CheckingBusDispatcher;

TEST(EndOfCycle, WaitsForWhoeverIsPostingToItsLoop) {
  DBus::_init_threading();
  CheckingBusDispatcher loop;
  qs_ns::set_dispatcher(&loop);
  test::Gate gate;
  const test::Background posting([&] {
    return qs_ns::withDispatcher([&](CheckingBusDispatcher& posted) {
      gate.pass();
      posted.postLeave();
    });
  });
  gate.awaitArrival();
  const test::Background ending([] { qs_ns::set_dispatcher(nullptr); });
  EXPECT_FALSE(ending.endsWithoutSleep());
  gate.open();
}

TEST(EndOfCycle, LeavesOnceThoughItIsAskedToTwice) {
  DBus::_init_threading();
  CheckingBusDispatcher loop;
  std::array<int, 8> opened{};
  loop.postLeave();
  // They get the numbers of what the library closes as it leaves.
  loop.work().post(BusWork::Kind::reply, [&] {
    for (int& descriptor : opened)
      descriptor = open("/dev/null", O_WRONLY | O_CLOEXEC);
  });
  loop.postLeave();
  loop.enter();
  for (const int descriptor : opened)
    EXPECT_EQ(close(descriptor), 0);
}

}  // namespace

// Stands for the report of an instrument, which the end of a process waits for.
#ifndef QUILLSPEAK_COVERAGE
namespace {
std::function<void()> atTheEnd;  // NOLINT(cert-err58-cpp): does not throw
}
extern "C" void __gcov_dump() {  // NOLINT(bugprone-reserved-identifier)
  if (atTheEnd) std::exchange(atTheEnd, nullptr)();
}

TEST(EndOfProcessDeathTest, TheFirstToAskForItWins) {
  const auto endTwice = [] {
    atTheEnd = [] {
      const auto* const second = new test::Background([] { qs_ns::endProcess(7); });
      EXPECT_FALSE(second->endsWithoutSleep());
    };
    qs_ns::endProcess(3);
  };
  EXPECT_EXIT(endTwice(), testing::ExitedWithCode(3), "");
}
#endif
