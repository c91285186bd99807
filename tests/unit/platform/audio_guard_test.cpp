// Devices that block, fail and come back.

#include <syslog.h>

#include <cerrno>
#include <thread>

#include <gtest/gtest.h>

#include "platform/audio/auto_output.h"
#include "platform/audio/guarded_output.h"
#include "support/background.h"
#include "support/fake_clock.h"
#include "support/gate.h"
#include "support/syslog_capture.h"

namespace {

using namespace std::chrono_literals;
using platform::audio::AutoOutput;
using platform::audio::GuardedOutput;
using platform::audio::kStepFrames;
using platform::audio::Output;

enum class Call { open, write, close, end };

/// What a test tells all devices, and what they tell it.
struct Script {
  std::optional<Call> stuckIn;  // set before the calls it is about
  std::atomic<int> openStatus{0};
  std::atomic<int> writeStatus{0};
  std::atomic<int> opens{0};
  std::vector<std::int16_t> heard;
  test::Gate gate;   // holds the calls of `stuckIn`
  test::Tally gone;  // devices destroyed
};

class ScriptedDevice final : public Output {
 public:
  explicit ScriptedDevice(std::shared_ptr<Script> toFollow) : script(std::move(toFollow)) {}
  ~ScriptedDevice() override {
    stay(Call::end);
    script->gone.add();
  }

  int open(std::string& why) override {
    ++script->opens;
    stay(Call::open);
    why = "as told";
    return script->openStatus;
  }
  int write(const std::int16_t* samples, std::size_t frames) override {
    stay(Call::write);
    script->heard.insert(script->heard.end(), samples, samples + frames);
    return script->writeStatus;
  }
  int close() override {
    stay(Call::close);
    return 0;
  }

 private:
  void stay(Call call) {
    if (stuck == call) script->gate.pass();
  }
  const std::shared_ptr<Script> script;
  const std::optional<Call> stuck = script->stuckIn;
};

class GuardedOutputTest : public testing::Test {
 protected:
  int open() { return guard->open(why); }
  int write() { return guard->write(step.data(), step.size()); }

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
  const std::vector<std::int16_t> step = std::vector<std::int16_t>(kStepFrames, 7);
  std::string why;
};

TEST_F(GuardedOutputTest, HandsCallsAndStatusesThrough) {
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(write(), 0);
  EXPECT_EQ(guard->write(step.data(), 1), 0);
  script->writeStatus = -ENODEV;
  EXPECT_EQ(write(), -ENODEV);
  EXPECT_EQ(guard->close(), 0);
  EXPECT_EQ(script->gone.value(), 1) << "the device outlived its stream";
  EXPECT_EQ(script->heard, std::vector<std::int16_t>(2 * kStepFrames + 1, 7));
  script->openStatus = -EBUSY;
  EXPECT_EQ(open(), -EBUSY);
  EXPECT_EQ(why, "as told");
  script->openStatus = 0;
  EXPECT_EQ(open(), 0) << "a failure that is no hang must not delay the next try";
}

TEST_F(GuardedOutputTest, GivesUpACallAfterASecondAndTheStreamWithIt) {
  for (const Call call : {Call::write, Call::close, Call::end}) {
    script->stuckIn = call;
    ASSERT_EQ(open(), 0);
    if (call == Call::write) {
      EXPECT_EQ(afterASecond([this] { return write(); }), -ETIMEDOUT);
      EXPECT_EQ(write(), -ETIMEDOUT) << "must not wait again";
      EXPECT_EQ(guard->close(), -ETIMEDOUT) << "must not wait again";
    } else {
      EXPECT_EQ(afterASecond([this] { return guard->close(); }), -ETIMEDOUT);
    }
    clock.advance(5s);
  }
  guard.reset();
  script->gate.open();
  script->gone.await(3);
}

TEST_F(GuardedOutputTest, TriesAStuckDeviceEveryFiveSecondsAndLeavesThreeThreadsBehindAtMost) {
  script->stuckIn = Call::open;
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
  EXPECT_EQ(guard->close(), 0);
  script->gone.await(4);
}

TEST_F(GuardedOutputTest, OpensAgainAtOnceWhileAnOldThreadIsStuckButTheDeviceWorks) {
  script->stuckIn = Call::write;
  ASSERT_EQ(open(), 0);
  EXPECT_EQ(afterASecond([this] { return write(); }), -ETIMEDOUT);
  guard->close();
  script->stuckIn.reset();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(guard->close(), 0);
  }
  script->gate.open();
  script->gone.await(4);
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
    device->openStatus = session.deviceWorks ? 0 : -ENOENT;
    std::string why;
    EXPECT_EQ(output.open(why), 0);
    EXPECT_EQ(output.write(&sample, 1), 0);
    EXPECT_EQ(output.close(), 0);
    EXPECT_EQ(device->opens, session.deviceOpens);
    EXPECT_EQ(nowhere->opens, session.nowhereOpens);
    EXPECT_EQ(test::countLog("alsa:default", LOG_WARNING), session.warnings);
  }
  EXPECT_EQ(device->heard.size(), 2U);
  EXPECT_EQ(nowhere->heard.size(), 3U);
  EXPECT_EQ(test::logLines().size(), 2U);
}

}  // namespace
