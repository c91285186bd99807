#include <cstdio>
#include <map>
#include <random>
#include <string_view>

#include "daemon/harness.h"
#include "playback/precedence.h"

// Four clients that do at random what clients do, for as many requests as are asked for:
//   daemon_stress_test --requests=20000 --seed=7

namespace {

int requestsWanted = 1000;
unsigned seed = std::random_device()();

/// What is known of a request whose handle a client was given.
struct Sent {
  test::PlayResult asked;
  bool stopAsked = false;
  bool stopAnswered = false;
  /// Has a request come since to which it gives way?
  bool mayBeDisplaced = false;
  int results = 0;
};

/// What the process holds.
struct Holdings {
  long residentKiB = 0;
  long descriptors = 0;
  long threads = 0;
};

Holdings holdingsOf(pid_t process) {
  const std::string folder = "/proc/" + std::to_string(process);
  const auto entries = [&](const char* name) {
    return std::distance(std::filesystem::directory_iterator(folder + name), {});
  };
  const std::string status = test::readFile(folder + "/status");
  return {std::stol(status.substr(status.find("VmRSS:") + 6)), entries("/fd"), entries("/task")};
}

class Stress : public test::DaemonTest {
 protected:
  void SetUp() override {
    std::printf("seed %u\n", seed);
    start();
    for (int i = 0; i < 3; ++i)
      others.push_back(std::make_unique<test::Client>(bus.address()));
    writeAlert(1600);
  }

  int below(int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); }
  std::uint32_t anyBits() { return static_cast<std::uint32_t>(random()); }
  test::Client& anyClient() {
    const int i = below(4);
    return i == 0 ? *client : *others[static_cast<std::size_t>(i) - 1];
  }

  test::PlayResult randomRequest() {
    static const std::vector<std::string> texts = {
        "a", "on", "Settings", "nine", "Battery low, please charge", "",
        // Seldom heard to its end, because something newer comes along.
        test::longText().substr(0, 80)};
    test::PlayResult request;
    for (int i = below(4); i > 0; --i)
      request.texts.push_back(texts[random() % texts.size()]);
    // Protected ones play to their end, so they are few; all other bits come as they like.
    request.flags = anyBits() & (below(40) == 0 ? ~0U : ~2U);
    request.params = anyBits();
    request.type = anyBits();
    return request;
  }

  void noteSent(const test::PlayResult& asked) {
    ++requests;
    for (auto& [handle, older] : sent)
      older.mayBeDisplaced |= qs_ns::givesWay(static_cast<std::int32_t>(older.asked.flags),
                                              static_cast<std::int32_t>(asked.flags));
    EXPECT_TRUE(sent.try_emplace(asked.handle, Sent{asked}).second) << "a handle given out twice";
  }

  void play() {
    test::PlayResult asked = randomRequest();
    const bool nothingToSay =
        (asked.flags & 4) == 0 && std::all_of(asked.texts.begin(), asked.texts.end(),
                                              [](const std::string& text) { return text.empty(); });
    const test::Reply reply = anyClient().play(asked.texts, static_cast<std::int32_t>(asked.flags),
                                               static_cast<std::int32_t>(asked.params),
                                               static_cast<std::int32_t>(asked.type));
    if (nothingToSay) {
      EXPECT_EQ(reply.value, 0U);
    } else if (!reply.error.empty()) {
      EXPECT_EQ(reply.error, test::kLimitsExceeded) << reply.message;
      settle();
    } else {
      asked.handle = reply.value;
      noteSent(asked);
    }
  }

  void stop(std::uint64_t handle) {
    const auto found = sent.find(handle);
    if (found != sent.end()) found->second.stopAsked = true;
    EXPECT_EQ(anyClient().stop(handle).error, "");
    // What was decided before came before the reply.
    takeResults();
    if (found != sent.end()) found->second.stopAnswered = true;
  }

  void stopOne() {
    if (sent.empty() || below(8) == 0) {
      stop(random());
      return;
    }
    // Most often one of the newest, which plays or waits; else an old one, which may be gone.
    auto chosen = std::prev(sent.end());
    for (int i = below(below(4) == 0 ? 40 : 3); i > 0 && chosen != sent.begin(); --i)
      --chosen;
    stop(chosen->first);
  }

  void takeResults() {
    const auto& all = client->results();
    for (; resultsTaken < all.size(); ++resultsTaken) {
      const test::PlayResult& result = all[resultsTaken];
      SCOPED_TRACE(testing::Message() << "result " << result.resultCode << " of " << result.handle);
      EXPECT_GT(result.handle, lastReported) << "reported twice, or out of the order of playing";
      lastReported = result.handle;
      // A signal may overtake the reply on another connection, but no call has been left open.
      const auto found = sent.find(result.handle);
      ASSERT_NE(found, sent.end());
      Sent& request = found->second;
      ++request.results;
      EXPECT_EQ(result.texts, request.asked.texts);
      EXPECT_EQ(result.params, request.asked.params);
      EXPECT_EQ(result.type, request.asked.type);
      EXPECT_EQ(result.flags, request.asked.flags);
      if (result.resultCode == 0) {
        EXPECT_FALSE(request.stopAnswered) << "0 after the stop was answered";
      } else {
        EXPECT_EQ(result.resultCode, 1U);
        EXPECT_TRUE(request.stopAsked || request.mayBeDisplaced) << "stopped by nobody";
      }
    }
  }

  /// Waits until nothing plays or waits, and looks back on what was sent.
  void settle() {
    // Protected requests that pile up would take minutes.
    for (auto& [handle, request] : sent) {
      const bool isProtected = (request.asked.flags & 2) != 0;
      if (isProtected && request.results == 0 && !request.stopAnswered && below(3) != 0) {
        stop(handle);
      }
    }
    test::PlayResult last;
    last.texts = {"on"};
    last.flags = 2;
    last.handle = client->play(last.texts, 2).value;
    ASSERT_NE(last.handle, 0U);
    noteSent(last);
    ASSERT_TRUE(client->awaitResult(last.handle).has_value());
    takeResults();
    EXPECT_EQ(lastReported, last.handle);
    for (const auto& [handle, request] : sent)
      EXPECT_TRUE(request.results == 1 || request.stopAnswered || request.mayBeDisplaced)
          << handle << " was lost";
    sent.clear();
  }

  /// With nothing to do, the list of phrases cached and no other text.
  Holdings holdingsAtRest() {
    settle();
    for (const test::Reply& reply : client->awaitFetched(static_cast<std::size_t>(conversions)))
      EXPECT_EQ(reply.error, "");
    // The session of the last one may still be closing.
    EXPECT_TRUE(daemon->waitForLog("Destructor", static_cast<int>(client->results().size())));
    if (!test::kSlowBuild) {
      const std::string listDone = "Number of phrases in cache:51";
      const int before = daemon->countLog(listDone);
      client->reload(0);
      EXPECT_TRUE(daemon->waitForLog(listDone, before + 1));
    }
    return holdingsOf(daemon->id());
  }

  void act() {
    const int action = below(100);
    if (action < 2) {
      settle();
    } else if (action < 4) {
      anyClient().reload(2 * below(5));
    } else if (action < 6) {
      anyClient().setVolume(below(12) - 3);
    } else if (action == 6) {
      ++conversions;
      client->fetchLater("a short text for a file", folder / "converted.wav");
    } else if (action < 9) {
      EXPECT_EQ(anyClient().property("State"), 0);
    } else if (action < 12) {
      client->listen(std::chrono::milliseconds(below(150)));
      takeResults();
    } else if (action < 40) {
      stopOne();
    } else {
      // One, or as many as a key that is held down asks for.
      for (int i = action < 50 ? 2 + below(10) : 1; i > 0; --i)
        play();
    }
  }

  std::mt19937 random{seed};
  std::vector<std::unique_ptr<test::Client>> others;
  std::map<std::uint64_t, Sent> sent;
  std::size_t resultsTaken = 0;
  std::uint64_t lastReported = 0;
  int conversions = 0;
  int requests = 0;
};

TEST_F(Stress, NothingIsLostDoubledOrKept) {
  Holdings early;
  while (requests < requestsWanted && !HasFailure()) {
    act();
    if (early.threads == 0 && requests >= requestsWanted / 10) early = holdingsAtRest();
  }
  Holdings late = holdingsAtRest();
  // A thread that has just ended is still counted for a while.
  EXPECT_TRUE(client->until([&] {
    late = holdingsOf(daemon->id());
    return late.threads <= early.threads;
  }));
  const auto& seen = client->results();
  EXPECT_EQ(daemon->countLog("Request handled for text"), static_cast<int>(seen.size()))
      << "began to sound and were reported";
  for (const auto& other : others)
    EXPECT_EQ(other->results().size(), seen.size());

  std::printf(
      "%d requests, %zu results, %d conversions; after a tenth and at the end: "
      "resident %ld and %ld KiB, descriptors %ld and %ld, threads %ld and %ld\n",
      requests, seen.size(), conversions, early.residentKiB, late.residentKiB, early.descriptors,
      late.descriptors, early.threads, late.threads);
  EXPECT_EQ(late.descriptors, early.descriptors);
  // In fewer the heap has not found its size; a sanitizer keeps what was freed.
  if (requestsWanted >= 20000 && !test::kSlowBuild) {
    EXPECT_LE(late.residentKiB, early.residentKiB + 1024);
  }
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  for (const std::string_view argument : std::vector<std::string_view>(argv + 1, argv + argc)) {
    if (argument.starts_with("--requests=")) requestsWanted = std::stoi(argument.data() + 11);
    if (argument.starts_with("--seed="))
      seed = static_cast<unsigned>(std::stoul(argument.data() + 7));
  }
  return RUN_ALL_TESTS();
}
