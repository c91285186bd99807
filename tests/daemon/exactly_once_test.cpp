// Results, stops and tear-downs that come close together.

#include <map>

#include "daemon/harness.h"

namespace {

using namespace std::chrono_literals;

// Only an alert, whose file is not there: it ends as soon as it begins.
constexpr std::int32_t kEndsAtOnce = 4;

class ExactlyOnce : public test::DaemonTest {
 protected:
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
  EXPECT_EQ(client->reload(-1).error, "") << "without the feature the trigger is only logged";
  constexpr std::size_t kRequests = 1000;
  for (std::size_t i = 0; i < kRequests; ++i)
    ASSERT_EQ(playToEnd({}, kEndsAtOnce), 0U) << i;
  EXPECT_EQ(playToEnd({"on"}), 0U);
  EXPECT_EQ(client->results().size(), kRequests + 1);
}

TEST_F(ExactlyOnce, AResultZeroNeverComesAfterTheAnswerToAStop) {
  start();
  std::map<std::uint64_t, bool> resultFirst;
  for (int round = 0; round < 400; ++round) {
    const std::uint64_t handle = client->play({}, kEndsAtOnce).value;
    // All along the time in which such a request ends.
    const auto at = std::chrono::steady_clock::now() + round % 20 * 5us;
    while (std::chrono::steady_clock::now() < at) {
    }
    const auto onAnswer = [&](const test::Reply&) {
      resultFirst[handle] = client->result(handle).has_value();
    };
    client->callLater(onAnswer, "StopTTSPlay", "tii", handle, 0, 0);
    ASSERT_TRUE(client->until([&] { return resultFirst.contains(handle); }));
    // Until its session is closed, so that the next one is not stopped while it waits.
    client->listen(21ms);
  }
  int zeros = 0;
  for (const test::PlayResult& result : client->results()) {
    if (result.resultCode != 0) continue;
    ++zeros;
    EXPECT_TRUE(resultFirst[result.handle]);
  }
  EXPECT_GT(zeros, 0) << "stops that came too late";
}

TEST_F(ExactlyOnce, AThousandReloadsWhileItSpeaksLeaveNoThreadBehind) {
  start();
  ASSERT_TRUE(daemon->waitForLog("Number of phrases in cache:51"));
  constexpr long kAtRest = 2;  // signals and play queue
  EXPECT_TRUE(client->until([&] { return threads() <= kAtRest; }));
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
  EXPECT_TRUE(client->until([&] { return threads() <= kAtRest + 1; })) << "the last builder";
}

// The name is given up a second after it is asked for; the time to plan a stage for. Those that are
// not asked for again have a second request queued; a session that opens is with the sound server's
// tests.
TEST_F(ExactlyOnce, ATearDownReportsWhatSoundedAndGivesTheNameUpInTime) {
  const struct {
    const char* what;
    std::vector<std::string> texts;
    std::int32_t flags;
    bool again;  // is it asked for anew whenever it has ended?
  } kStages[] = {{"synthesising", {std::string(4000, 'a')}, 0, true},
                 {"playing", {test::longText().substr(0, 900)}, 2, false},
                 {"closing", {}, 4, true},
                 {"alert", {}, 4 + 2, false}};
  for (const auto& stage : kStages) {
    SCOPED_TRACE(stage.what);
    start({.properties = test::kWithAutomation});
    if (std::string(stage.what) == "alert") writeAlert(20 * 16000);
    const auto asked = std::chrono::steady_clock::now();
    EXPECT_EQ(client->reload(1).error, "");
    int requests = 0;
    do {
      if (!client->play(stage.texts, stage.flags).error.empty()) break;
      ++requests;
      if (stage.again) client->listen(21ms);
    } while (stage.again || requests < 2);
    ASSERT_TRUE(client->awaitName(false));
    EXPECT_LT(std::chrono::steady_clock::now() - asked, test::kSlowBuild ? 3s : 2s);
    // All whose turn had come were reported before the name went, and once; one that was stopped as
    // it came has no writer.
    std::map<std::uint64_t, int> reports;
    for (const auto& result : client->results())
      EXPECT_EQ(++reports[result.handle], 1);
    EXPECT_EQ(static_cast<int>(reports.size()),
              daemon->countLog("WriteTTSThread started") +
                  daemon->countLog("Don't call QS_WriteTTSThread()"));
  }
}

}  // namespace
