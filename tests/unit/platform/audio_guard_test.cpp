// Devices that block, fail and come back.

#include <syslog.h>

#include <array>
#include <cerrno>
#include <thread>

#include <gtest/gtest.h>

#include "platform/audio/auto_output.h"
#include "platform/audio/guarded_output.h"
#include "platform/audio/line.h"
#include "support/background.h"
#include "support/fake_clock.h"
#include "support/gate.h"
#include "support/syslog_capture.h"

namespace {

using namespace std::chrono_literals;
using platform::audio::AutoOutput;
using platform::audio::Device;
using platform::audio::GuardedOutput;
using platform::audio::Line;

enum Call : std::size_t { kOpen, kWrite, kClose, kDrop, kRest, kRelease, kEnd, kCalls };

/// What a test tells all devices, and what they tell it.
struct Script {
  std::optional<Call> stuckIn;  // of the devices made from now on
  std::array<std::atomic<int>, kCalls> statuses{};
  std::array<std::atomic<int>, kCalls> calls{};
  test::Gate gate;   // holds the calls of `stuckIn`
  test::Tally gone;  // devices destroyed
};

class ScriptedDevice final : public Device {
 public:
  explicit ScriptedDevice(std::shared_ptr<Script> toFollow) : script(std::move(toFollow)) {}
  ~ScriptedDevice() override {
    follow(kEnd);
    script->gone.add();
  }

  int open(std::string& why) override {
    why = "as told";
    return follow(kOpen);
  }
  int write(const std::int16_t*, std::size_t) override { return follow(kWrite); }
  int close() override { return follow(kClose); }
  void finishDrop() override { follow(kDrop); }
  void rest() override { follow(kRest); }
  void release() override { follow(kRelease); }

 private:
  int follow(Call call) {
    ++script->calls[call];
    if (stuck == call) script->gate.pass();
    return script->statuses[call];
  }
  const std::shared_ptr<Script> script;
  const std::optional<Call> stuck = script->stuckIn;
};

class GuardedOutputTest : public testing::Test {
 protected:
  int open() { return guard->open(why); }
  int write() { return guard->write(&sample, 1); }

  void awaitCall(Call call) const {
    while (script->calls[call] == 0)
      std::this_thread::yield();
  }

  /// The status of a call that must come back only when a second has passed.
  template <typename Function>
  int afterASecond(Function function) {
    test::Background status(function);
    EXPECT_EQ(clock.advanceToNextDeadline(), 1s);
    return status.get();
  }

  test::FakeClock clock;
  const std::shared_ptr<Script> script = std::make_shared<Script>();
  int devicesMade = 0;
  std::unique_ptr<GuardedOutput> guard = std::make_unique<GuardedOutput>([this] {
    ++devicesMade;
    return std::make_unique<ScriptedDevice>(script);
  });
  std::string why;
  const std::int16_t sample = 1;
};

TEST_F(GuardedOutputTest, HandsOnWhyADeviceDoesNotOpenAndKeepsOneThatDoesForFiveQuietSeconds) {
  script->statuses[kOpen] = -EBUSY;
  EXPECT_EQ(open(), -EBUSY);
  EXPECT_EQ(why, "as told");
  script->gone.await(1);
  script->statuses[kOpen] = 0;
  EXPECT_EQ(open(), 0) << "a failure that is no hang must not delay the next try";
  EXPECT_EQ(guard->close(), 0);
  EXPECT_EQ(clock.advanceToNextDeadline(), GuardedOutput::kRestAfter);
  awaitCall(kRest);
  EXPECT_EQ(clock.advanceToNextDeadline(), 4500ms);
  script->gone.await(2);
  EXPECT_EQ(script->calls[kRest], 1);
  // A stream that is open has no end of its own.
  for (int stream = 0; stream < 3; ++stream) {
    EXPECT_EQ(open(), 0);
    clock.advance(1h);
    EXPECT_EQ(guard->close(), 0);
    clock.advance(GuardedOutput::kRestAfter - 1ns);
  }
  EXPECT_EQ(devicesMade, 3);
  EXPECT_EQ(script->calls[kRest], 1) << "the streams were too close to each other";
  guard.reset();
  EXPECT_EQ(script->gone.value(), 3);
}

TEST_F(GuardedOutputTest, OpensAgainADeviceThatIsJustBeingGivenBack) {
  script->stuckIn = kRelease;
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(guard->close(), 0);
  clock.advance(GuardedOutput::kReleaseAfter);
  script->gate.awaitArrival();
  test::Background opened([&] { return open(); });
  EXPECT_FALSE(opened.endsWithoutSleep());
  script->gate.open();
  EXPECT_EQ(opened.get(), 0);
  EXPECT_EQ(write(), 0);
  EXPECT_EQ(devicesMade, 1);
}

TEST_F(GuardedOutputTest, DropsWhatWaitsAlsoBetweenWritesButNotOfTheNextStream) {
  script->stuckIn = kWrite;
  ASSERT_EQ(open(), 0);
  guard->drop();
  awaitCall(kDrop);
  EXPECT_EQ(guard->close(), 0);
  EXPECT_EQ(open(), 0);
  test::Background written([&] { return write(); });
  script->gate.awaitArrival();
  guard->drop();
  script->gate.open();
  EXPECT_EQ(written.get(), 0);
  EXPECT_EQ(guard->close(), 0);
  const int drops = script->calls[kDrop];
  EXPECT_EQ(open(), 0);
  EXPECT_EQ(write(), 0);
  EXPECT_EQ(script->calls[kDrop], drops);
}

TEST_F(GuardedOutputTest, GivesUpACallAfterASecondAndTheStreamWithIt) {
  script->stuckIn = kWrite;
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(afterASecond([this] { return write(); }), -ETIMEDOUT);
  EXPECT_EQ(write(), -ETIMEDOUT) << "must not wait again";
  EXPECT_EQ(guard->close(), -ETIMEDOUT) << "must not wait again";
  script->stuckIn = kClose;
  ASSERT_EQ(open(), 0) << "the first one that is stuck says nothing about a fresh one";
  EXPECT_EQ(afterASecond([this] { return guard->close(); }), -ETIMEDOUT);
  EXPECT_EQ(open(), -ETIMEDOUT) << "two that opened are stuck";
  clock.advance(5s);
  script->stuckIn = kEnd;
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(guard->close(), 0);
  {
    const test::Background destroyed([this] { guard.reset(); });
    script->gate.awaitArrival(3);
    EXPECT_EQ(clock.advanceToNextDeadline(), 1s);
  }
  script->gate.open();
  script->gone.await(3);
}

TEST_F(GuardedOutputTest, TriesAStuckDeviceEveryFiveSecondsAndLeavesThreeThreadsBehindAtMost) {
  script->stuckIn = kOpen;
  for (int stuck = 1; stuck <= GuardedOutput::kMostStuckThreads; ++stuck) {
    EXPECT_EQ(afterASecond([this] { return open(); }), -ETIMEDOUT);
    EXPECT_EQ(why, "the device does not answer");
    EXPECT_EQ(open(), -ETIMEDOUT);
    clock.advance(5s - 1ns);
    EXPECT_EQ(open(), -ETIMEDOUT);
    EXPECT_EQ(devicesMade, stuck) << "tried too early";
    clock.advance(1ns);
  }
  clock.advance(1h);
  EXPECT_EQ(open(), -ETIMEDOUT);
  EXPECT_EQ(devicesMade, GuardedOutput::kMostStuckThreads);

  // A thread that comes back makes room for a try, one after another.
  script->stuckIn.reset();
  script->gate.open();
  while (open() != 0)
    std::this_thread::yield();
  EXPECT_EQ(write(), 0);
  guard.reset();
  script->gone.await(4);
}

class LineTest : public testing::Test {
 protected:
  void make(std::optional<Call> stuckIn = {}) {
    script->stuckIn = stuckIn;
    line.emplace("test", std::make_unique<ScriptedDevice>(script));
  }
  int write(int handle) { return line->write(handle, second.data(), second.size()); }

  const std::shared_ptr<Script> script = std::make_shared<Script>();
  std::optional<Line> line;
  const std::vector<std::int16_t> second = std::vector<std::int16_t>(48000);
};

TEST_F(LineTest, StaysDeadAfterAFailedWriteUntilItIsOpenedAgain) {
  make();
  const int handle = line->open();
  script->statuses[kWrite] = -EIO;
  EXPECT_EQ(write(handle), -EIO);
  script->statuses[kWrite] = 0;
  EXPECT_EQ(write(handle), -EIO);
  EXPECT_EQ(line->close(handle), 0);
  EXPECT_EQ(write(line->open()), 0);
}

TEST_F(LineTest, IsClosedUnderAWriteOfAnotherThread) {
  make(kWrite);
  const int handle = line->open();
  test::Background written([&] { return write(handle); });
  script->gate.awaitArrival();
  test::Background closed([&] { line->closeAny(); });
  // The close is under way as soon as the handle is no longer good.
  while (write(handle) != -EBADF)
    std::this_thread::yield();
  EXPECT_EQ(script->calls[kClose], 0) << "closed while a call was in the output";
  script->gate.open();
  EXPECT_EQ(written.get(), -EBADF);
  closed.get();
  EXPECT_EQ(script->calls[kWrite], 1);
  EXPECT_EQ(script->calls[kClose], 1);
}

TEST_F(LineTest, IsClosedAsSoonAsAnotherThreadHasOpenedIt) {
  make(kOpen);
  test::Background opened([&] { return line->open(); });
  script->gate.awaitArrival();
  test::Background closed([&] { line->closeAny(); });
  EXPECT_FALSE(closed.endsWithoutSleep());
  script->gate.open();
  const int handle = opened.get();
  closed.get();
  EXPECT_EQ(script->calls[kClose], 1);
  EXPECT_EQ(write(handle), -EBADF);
}

TEST(AutoOutput, ChangesToNowhereAndBackWithOneWarningEach) {
  test::FakeClock clock;
  test::clearLog();
  const auto device = std::make_shared<Script>();
  const auto nowhere = std::make_shared<Script>();
  AutoOutput output("alsa:default", std::make_unique<ScriptedDevice>(device),
                    std::make_unique<ScriptedDevice>(nowhere));
  struct Session {
    std::chrono::seconds pause;  // before it
    bool deviceWorks;
    int deviceOpens, nowhereOpens, warnings;  // afterwards, in all
  };
  const Session sessions[] = {
      {0s, true, 1, 0, 0},  {0s, false, 2, 1, 1}, {4s, true, 2, 2, 1},
      {1s, false, 3, 3, 1}, {5s, true, 4, 3, 2},
  };
  const std::int16_t sample = 1;
  for (const Session& session : sessions) {
    clock.advance(session.pause);
    device->statuses[kOpen] = session.deviceWorks ? 0 : -ENOENT;
    std::string why;
    EXPECT_EQ(output.open(why), 0);
    EXPECT_EQ(output.write(&sample, 1), 0);
    EXPECT_EQ(output.close(), 0);
    EXPECT_EQ(device->calls[kOpen], session.deviceOpens);
    EXPECT_EQ(nowhere->calls[kOpen], session.nowhereOpens);
    EXPECT_EQ(test::countLog("alsa:default", LOG_WARNING), session.warnings);
  }
  EXPECT_EQ(device->calls[kWrite], 2);
  EXPECT_EQ(nowhere->calls[kWrite], 3);
  EXPECT_EQ(test::countLog(""), 2);
}

}  // namespace
