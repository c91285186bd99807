// Files, the bus and the process itself, made to fail while the daemon works.

#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <random>

#include "daemon/harness.h"
#include "support/background.h"

namespace {

using namespace std::chrono_literals;
using test::kEnabled;

using Faults = test::DaemonTest;

/// How often to do what is left to chance.
int rounds(int usually, int inLongTests) {
  return std::getenv("QS_TEST_LONG") != nullptr ? inLongTests : usually;
}

constexpr char kPipe[] = "a pipe";

const struct {
  const char* what;
  std::function<void(const std::string&)> make;
} kBadFiles[] = {
    {"nothing", [](const std::string&) {}},
    {"a folder", [](const std::string& path) { std::filesystem::create_directory(path); }},
    {"one byte", [](const std::string& path) { test::writeFile(path, "x"); }},
    {"a loop of links",
     [](const std::string& path) { std::filesystem::create_symlink(path, path); }},
    {"a program", [](const std::string& path) { std::filesystem::copy("/bin/true", path); }},
    {kPipe, [](const std::string& path) { EXPECT_EQ(mkfifo(path.c_str(), 0600), 0); }},
};

TEST_F(Faults, FilesThatCannotBeReadLeaveDefaultsLexiconAndResult) {
  const std::string properties = folder / "etc/properties.conf";
  const std::string lexicon = folder / "files/addenda.lex";
  const std::string alert = folder / "files/error_mono.raw";
  std::filesystem::create_directory(folder / "files");
  for (const auto& bad : kBadFiles) {
    SCOPED_TRACE(bad.what);
    std::filesystem::remove_all(lexicon);
    // The library opens the lexicon itself, a pipe for ever.
    if (bad.what != kPipe) bad.make(lexicon);
    start();
    std::filesystem::remove_all(alert);
    bad.make(alert);
    std::filesystem::remove(properties);
    bad.make(properties);
    EXPECT_EQ(client->property("State"), -1);
    EXPECT_EQ(playToEnd({"on"}, 4), 0U);
    std::filesystem::remove_all(properties);
    test::writeFile(properties, kEnabled);
    EXPECT_EQ(client->property("State"), 0);
    daemon->signal(SIGTERM);
    expectEnd(1);
  }
}

TEST_F(Faults, AReaderOfPropertiesNeverSeesOneThatIsBeingReplaced) {
  start();
  const int wanted = rounds(200, 1000);
  std::atomic<int> replaced{0};
  std::atomic<bool> done{false};
  const test::Background writer([&] {
    // Of different lengths, so that a mixture of two would have half a line.
    for (; !done; ++replaced) {
      const auto length = static_cast<std::size_t>(replaced) * 97 % 70'000;
      setProperties(std::string(length, '#') + "\n" + kEnabled);
    }
  });
  for (int reads = 0; reads < wanted || replaced < wanted; ++reads)
    EXPECT_EQ(client->property("State"), 0) << reads;
  done = true;
}

TEST_F(Faults, WhereNoThreadIsToBeHadCallersAreToldAndAllWorksLater) {
  start({.properties = test::kWithAutomation});
  EXPECT_EQ(client->property("State"), 0) << "the name comes before the first threads";
  test::writeFile(folder / "files/no-threads", "");
  const test::Reply refused = client->fetch("on", folder / "on.wav");
  EXPECT_EQ(refused.error, "org.freedesktop.DBus.Error.Failed");
  EXPECT_NE(refused.message.find("no thread could be started"), std::string::npos);
  EXPECT_EQ(playToEnd({"on"}), 1U) << "what cannot be played counts as stopped";
  EXPECT_EQ(daemon->countLog("LOG_ERR executeStream: no thread for the writer"), 1);
  EXPECT_EQ(client->reload(1).error, "");
  EXPECT_EQ(daemon->countLog("LOG_WARNING qs_disconnectDBus: pthread create failed"), 1);
  std::filesystem::remove(folder / "files/no-threads");
  EXPECT_EQ(client->fetch("on", folder / "on.wav").error, "");
  EXPECT_EQ(playToEnd({"on"}), 0U);
}

/// What the daemon does when the fault comes.
const struct {
  const char* what;
  std::function<void(test::Client&)> ask;
  const char* logged;
} kStages[] = {
    {"idle", [](test::Client&) {}, "QS_CT:threadLoop: Number of phrases in cache:51"},
    {"caching", [](test::Client&) {}, "QS_CT:createCacheEntry: Phrase from list"},
    {"speaking", [](test::Client& c) { c.play({test::longText()}); }, "WriteTTSThread started"},
    {"playing an alert", [](test::Client& c) { c.play({}, 4); }, "WriteTTSThread started"},
    {"converting", [](test::Client& c) { c.fetchLater(test::longText(), "/nowhere/x.wav"); },
     "QS_ConvertTTSThread: threadloop started"},
};

TEST_F(Faults, ASecondCopyIsRefusedAndSigtermOrTheLossOfTheBusEndItAtEveryStage) {
  for (const auto& stage : kStages) {
    for (const int status : {1, 255}) {
      SCOPED_TRACE(testing::Message() << stage.what << " " << status);
      start();
      writeAlert(20 * 16000);
      stage.ask(*client);
      ASSERT_TRUE(daemon->waitForLog(stage.logged));
      std::vector<std::string> arguments;
      if (status == 1) arguments = {"dump", "x"};
      test::Daemon second(folder, bus.address(), {.audio = "null", .arguments = arguments});
      EXPECT_EQ(second.exitStatus(), 1);
      EXPECT_EQ(second.countLog("Only one instance of quillspeak can run at a time"), 1);
      EXPECT_EQ(client->property("State"), 0);
      EXPECT_TRUE(std::filesystem::exists(folder / "run/quillspeak-daemon.pid"));
      status == 1 ? daemon->signal(SIGTERM) : bus.kill();
      expectEnd(status);
      EXPECT_EQ(daemon->countLog("LOG_ERR Lost DBUS system bus connection"), status == 1 ? 0 : 1);
    }
    bus = test::PrivateBus(folder);
  }
}

TEST_F(Faults, SigtermAtAnyMomentEndsItWithinASecond) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  for (int i = rounds(20, 200); i > 0; --i) {
    launch();
    client.emplace(bus.address());
    // Before that, all signals do what they always do.
    ASSERT_TRUE(daemon->waitForLog("openlog "));
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(random() % 400);
    while (std::chrono::steady_clock::now() < until) {
      client->play({"a word", "another one"}, static_cast<std::int32_t>(random() % 16));
      if (random() % 8 == 0) client->reload(0);
      if (random() % 8 == 0) client->fetchLater("on", folder / "on.wav");
    }
    daemon->signal(SIGTERM);
    expectEnd(1);
  }
}

}  // namespace
