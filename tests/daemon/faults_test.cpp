// Files, the bus and the process itself, made to fail while the daemon works.

#include <sched.h>
#include <sys/mount.h>
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

std::string noise(std::size_t bytes) {
  std::string all(bytes, '\0');
  std::generate(all.begin(), all.end(),
                [random = std::mt19937(1)]() mutable { return static_cast<char>(random()); });
  return all;
}

const struct {
  const char* what;
  std::function<void(const std::string&)> make;
} kBadFiles[] = {
    {"nothing", [](const std::string&) {}},
    {"a folder", [](const std::string& path) { std::filesystem::create_directory(path); }},
    {"one byte", [](const std::string& path) { test::writeFile(path, "x"); }},
    {"a loop of links",
     [](const std::string& path) { std::filesystem::create_symlink(path, path); }},
    {"noise", [](const std::string& path) { test::writeFile(path, noise(30'000)); }},
    // The library opens the lexicon itself, a pipe for ever, and complains of each line on standard
    // output, which a test does not read meanwhile. As an alert 10 MB can be played.
    {"a pipe", [](const std::string& path) { EXPECT_EQ(mkfifo(path.c_str(), 0600), 0); }},
    {"10 MB of noise", [](const std::string& path) { test::writeFile(path, noise(10 << 20)); }},
};

TEST_F(Faults, FilesThatCannotBeReadLeaveDefaultsLexiconAndResult) {
  const std::string properties = folder / "etc/properties.conf";
  const std::string lexicon = folder / "files/addenda.lex";
  const std::string alert = folder / "files/error_mono.raw";
  std::filesystem::create_directory(folder / "files");
  for (const auto& bad : kBadFiles) {
    SCOPED_TRACE(bad.what);
    std::filesystem::remove_all(lexicon);
    const bool large = std::string(bad.what) == "10 MB of noise";
    if (!large && std::string(bad.what) != "a pipe") bad.make(lexicon);
    start();
    std::filesystem::remove_all(alert);
    if (!large) bad.make(alert);
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
  ASSERT_TRUE(daemon->waitForLog("Number of phrases in cache:51"));
  test::writeFile(folder / "files/no-threads", "");
  const test::Reply refused = client->fetch("on", folder / "on.wav");
  EXPECT_EQ(refused.error, "org.freedesktop.DBus.Error.Failed");
  EXPECT_NE(refused.message.find("no thread could be started"), std::string::npos);
  EXPECT_EQ(playToEnd({"on"}), 1U) << "what cannot be played counts as stopped";
  EXPECT_EQ(daemon->countLog("LOG_ERR executeStream: no thread for the writer"), 1);
  EXPECT_EQ(client->reload(1).error, "");
  EXPECT_EQ(daemon->countLog("LOG_WARNING qs_disconnectDBus: pthread create failed"), 1);
  EXPECT_EQ(client->reload(0).error, "");
  EXPECT_EQ(daemon->countLog("LOG_ERR QS_CT:runThread: no thread for the phrase cache"), 1);
  std::filesystem::remove(folder / "files/no-threads");
  EXPECT_EQ(client->fetch("on", folder / "on.wav").error, "");
  EXPECT_EQ(playToEnd({"on"}), 0U);
  EXPECT_EQ(client->reload(0).error, "");
  EXPECT_TRUE(daemon->waitForLog("QS_CT:threadLoop: Message queue is busy")) << "it runs";
}

TEST_F(Faults, AFolderThatTakesNoConversionIsLoggedAndTheNextOneIsWritten) {
  // Mounts that nobody else sees and that go with this process.
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    GTEST_SKIP() << "only root may mount";
  const struct {
    const char* what;
    const char* logged;
    unsigned long flags;
    const char* options;  // of what is mounted there; null for nothing
  } kBadFolders[] = {
      {"full", "No space left on device", 0, "size=16k"},
      {"read-only", "Read-only file system", MS_RDONLY, ""},
      {"removed meanwhile", "No such file or directory", 0, nullptr},
  };
  start();
  std::size_t asked = 0;
  for (const auto& bad : kBadFolders) {
    SCOPED_TRACE(bad.what);
    const std::string place = folder / bad.what;
    std::filesystem::create_directory(place);
    const bool mounted = bad.options != nullptr;
    ASSERT_TRUE(!mounted || mount("none", place.c_str(), "tmpfs", bad.flags, bad.options) == 0);
    client->fetchLater(test::longText().substr(0, 600), place + "/x.wav");
    if (!mounted) std::filesystem::remove_all(place);
    const auto answers = client->awaitFetched(++asked);
    ASSERT_EQ(answers.size(), asked);
    EXPECT_EQ(answers.back().error, "");
    EXPECT_EQ(daemon->countLog(bad.logged), 1);
    EXPECT_EQ(daemon->countLog("LOG_ERR "), static_cast<int>(asked));
    EXPECT_EQ(client->fetch("on", folder / bad.what + ".wav").error, "");
    EXPECT_GT(test::readWave(folder / bad.what + ".wav").size(), 1000U);
    if (mounted) umount(place.c_str());
  }
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
