// Results, stops and tear-downs that come close together.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "daemon/fixture.h"

namespace {

using namespace std::chrono_literals;

// Only an alert, whose file is not there: it ends as soon as it begins.
constexpr std::int32_t kEndsAtOnce = 4;

class ExactlyOnce : public test::DaemonTest {
 protected:
  /// Waits until the daemon has no more threads than so many; false after 10 s.
  bool awaitThreads(long most) {
    for (int i = 0; i < 1000 && threads() > most; ++i)
      client->listen(10ms);
    return threads() <= most;
  }
  /// Of the daemon's own but the main one; a sanitizer may have one too.
  long threads() const {
    const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(daemon->id()) +
                                                    "/task");
    return std::count_if(begin(tasks), end(tasks), [](const auto& task) {
      return test::readFile(task.path() / "comm").starts_with("QS_");
    });
  }
};

TEST_F(ExactlyOnce, AClientMayAnswerEachResultWithItsNextRequest) {
  start();
  constexpr std::size_t kRequests = 1000;
  for (std::size_t i = 0; i < kRequests; ++i) {
    const test::Reply reply = client->play({}, kEndsAtOnce);
    const auto result = client->awaitResult(reply.value);
    ASSERT_TRUE(result.has_value()) << i;
    ASSERT_EQ(result->resultCode, 0U) << i;
  }
  EXPECT_EQ(playToEnd({"on"}), 0U);
  EXPECT_EQ(client->results().size(), kRequests + 1);
}

TEST_F(ExactlyOnce, AResultZeroNeverComesAfterTheAnswerToAStop) {
  start();
  struct Stop {
    test::Client* client;
    std::uint64_t handle;
    bool answered = false;
    bool resultFirst = false;
  };
  const auto onAnswer = [](sd_bus_message*, void* data, sd_bus_error*) {
    auto& stop = *static_cast<Stop*>(data);
    stop.answered = true;
    stop.resultFirst = stop.client->hasResult(stop.handle);
    return 0;
  };
  std::map<std::uint64_t, bool> resultFirst;
  for (int round = 0; round < 400; ++round) {
    Stop stop{&*client, client->play({}, kEndsAtOnce).value};
    // All along the time in which such a request ends.
    const auto at = std::chrono::steady_clock::now() + round % 20 * 5us;
    while (std::chrono::steady_clock::now() < at) {
    }
    ASSERT_GE(sd_bus_call_method_async(client->bus(), nullptr, "com.wexel.Quillspeak",
                                       "/com/wexel/Quillspeak", "com.wexel.QuillspeakInterface1",
                                       "StopTTSPlay", onAnswer, &stop, "tii", stop.handle, 0, 0),
              0);
    while (!stop.answered)
      client->listen(1ms);
    resultFirst[stop.handle] = stop.resultFirst;
    // Until its session is closed, so that the next one is not stopped while it waits.
    client->listen(21ms);
  }
  int zeros = 0;
  int ones = 0;
  for (const test::PlayResult& result : client->results()) {
    ++(result.resultCode == 0 ? zeros : ones);
    EXPECT_TRUE(result.resultCode != 0 || resultFirst[result.handle]);
  }
  std::printf("%d stops came too late, %d in time\n", zeros, ones);
  EXPECT_GT(zeros, 0);
}

TEST_F(ExactlyOnce, ConversionsOneAfterTheOtherAreAllAnswered) {
  start();
  // More than may be under way at a time.
  for (int i = 0; i < 20; ++i)
    EXPECT_EQ(client->fetch("on", folder / "on.wav").error, "") << i;
}

TEST_F(ExactlyOnce, AThousandReloadsWhileItSpeaksLeaveNoThreadBehind) {
  start();
  const std::string listDone = "Number of phrases in cache:51";
  ASSERT_TRUE(daemon->waitForLog(listDone));
  constexpr long kAtRest = 2;  // signals and play queue
  EXPECT_TRUE(awaitThreads(kAtRest));
  const std::uint64_t playing = client->play({test::longText()}).value;
  ASSERT_TRUE(daemon->waitForLog("WriteTTSThread started"));
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(client->reload(2 * i).error, "");
    if (i % 50 == 0) {
      EXPECT_LE(threads(), kAtRest + 3) << "the writer, a builder that ends and its successor";
    }
  }
  EXPECT_EQ(client->stop(playing).error, "");
  EXPECT_EQ(playToEnd({"on"}), 0U);
  ASSERT_TRUE(daemon->waitForLog(listDone, 2));
  EXPECT_TRUE(awaitThreads(kAtRest));
}

struct Stage {
  const char* name;
  std::vector<std::string> texts;
  std::int32_t flags;
  bool again;  // is it asked for anew whenever it has ended?
};

std::ostream& operator<<(std::ostream& out, const Stage& stage) {
  return out << stage.name;
}

class TearDown : public ExactlyOnce, public testing::WithParamInterface<Stage> {};

// The name is given up a second after it is asked for; the time to plan a stage for. All but the
// last have a second request queued; a session that opens is with the sound server's tests.
TEST_P(TearDown, ReportsWhatSoundedAndGivesTheNameUpInTime) {
  start({.properties = "device.accessibility.qs_enabled = true\n"
                       "device.feature.dbus-automation = 1\n"});
  if (!GetParam().again) {
    test::writeFile(folder / "files/error_mono.raw", std::string(20 * 32000, '\x10'));
  }
  const auto asked = std::chrono::steady_clock::now();
  EXPECT_EQ(client->reload(1).error, "");
  int requests = 0;
  do {
    const test::Reply reply = client->play(GetParam().texts, GetParam().flags);
    if (!reply.error.empty()) break;
    ++requests;
    if (GetParam().again) client->listen(21ms);
  } while (GetParam().again || requests < 2);
  ASSERT_TRUE(client->awaitName(false));
  EXPECT_LT(std::chrono::steady_clock::now() - asked, test::kSlowBuild ? 3s : 2s);
  // All that began to sound was reported before the name went, and once.
  std::map<std::uint64_t, int> reports;
  for (const auto& result : client->results())
    ++reports[result.handle];
  for (const auto& [handle, count] : reports)
    EXPECT_EQ(count, 1) << handle;
  EXPECT_EQ(static_cast<int>(reports.size()), daemon->countLog("WriteTTSThread started"));
}

INSTANTIATE_TEST_SUITE_P(
    AtEveryStage, TearDown,
    testing::Values(Stage{"synthesising", {std::string(4000, 'a')}, 2, false},
                    Stage{"playing", {test::longText().substr(0, 900)}, 2, false},
                    Stage{"alert", {}, 4 + 2, false}, Stage{"closing", {}, 4, true}),
    [](const testing::TestParamInfo<Stage>& instance) { return std::string(instance.param.name); });

}  // namespace
