#include <atomic>

#include "daemon/harness.h"
#include "support/background.h"

// By itself, and with no other test beside it: what is measured is the daemon, not the machine.

namespace {

using namespace std::chrono_literals;
using Latency = test::DaemonTest;

TEST_F(Latency, CallsAreAnsweredWhileTheLargestTextsAreSynthesised) {
  start();
  std::string heavy;
  while (heavy.size() < 4000)
    heavy += "speech daemon ";
  std::string file;
  while (file.size() < 16000)
    file += "conversion ";
  client->fetchLater(file, folder / "long.wav");
  const std::uint64_t handle = client->play({heavy}, 2).value;
  std::vector<std::chrono::microseconds> times;
  std::uint64_t queued = 0;
  const std::function<void()> kCalls[] = {
      [&] { queued = client->play({"behind the one that plays"}, 2).value; },
      [&] { client->stop(queued); }, [&] { client->reload(0); }, [&] { client->setVolume(2); },
      [&] { client->property("State"); }};
  constexpr auto kP99 = test::kSlowBuild ? 10ms : 5ms;
  constexpr auto kWorst = test::kSlowBuild ? 100ms : 50ms;
  // What the daemon itself holds up is held up in every round; the machine has other things to do.
  for (int round = 0; round < 3; ++round) {
    times.clear();
    for (int i = 0; i < 300; ++i) {
      // A steady 200 calls a second: a client that floods competes with the daemon for the
      // processor, and the figure is then the scheduler's.
      client->listen(5ms);
      const auto asked = std::chrono::steady_clock::now();
      kCalls[i % 5]();
      times.push_back(std::chrono::duration_cast<std::chrono::microseconds>(
          std::chrono::steady_clock::now() - asked));
    }
    std::sort(times.begin(), times.end());
    if (times[296] <= kP99 && times.back() <= kWorst) break;
  }
  EXPECT_EQ(client->results().size(), 0U) << "the long one plays all the while";
  RecordProperty("p99_us", static_cast<int>(times[296].count()));
  RecordProperty("worst_us", static_cast<int>(times.back().count()));
  EXPECT_LE(times.back(), kWorst);
  EXPECT_LE(times[296], kP99);
  client->stop(handle);
  EXPECT_EQ(client->awaitResult(handle)->resultCode, 1U);
}

TEST_F(Latency, AStopIsAnsweredWhileAnotherClientCallsAsFastAsItCan) {
  start();
  std::atomic<bool> done{false};
  long calls = 0;
  {
    const test::Background flood([&] {
      test::Client greedy(bus.address());
      for (; !done; ++calls)
        greedy.property("State");
    });
    std::chrono::steady_clock::duration worst{};
    for (int i = 0; i < 100; ++i) {
      const std::uint64_t handle = client->play({"a text that is stopped at once"}).value;
      const auto asked = std::chrono::steady_clock::now();
      EXPECT_EQ(client->stop(handle).error, "");
      worst = std::max(worst, std::chrono::steady_clock::now() - asked);
    }
    done = true;
    EXPECT_LE(worst, test::kSlowBuild ? 100ms : 50ms);
  }
  EXPECT_GT(calls, 100);
}

}  // namespace
