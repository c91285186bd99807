// Files, the bus and the process itself, made to fail while the daemon works.

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "daemon/fixture.h"
#include "support/background.h"

namespace {

using namespace std::chrono_literals;
using test::Daemon;

constexpr char kEnabled[] = "device.accessibility.qs_enabled = true\n";

std::string noise(std::size_t bytes) {
  std::mt19937 random(1);
  std::string all(bytes, '\0');
  for (char& c : all)
    c = static_cast<char>(random());
  return all;
}

class Faults : public test::DaemonTest {
 protected:
  /// Whatever is at `path` makes room for what `make` puts there.
  static void put(const std::string& path, const std::function<void(const std::string&)>& make) {
    std::filesystem::remove_all(path);
    make(path);
  }

  /// How often to do what is left to chance.
  static int rounds(int usually, int inLongTests) {
    return std::getenv("QS_TEST_LONG") != nullptr ? inLongTests : usually;
  }

  void startEnabled() { start({.properties = kEnabled}); }
};

const struct {
  const char* what;
  std::function<void(const std::string&)> make;
} kBadFiles[] = {
    {"nothing", [](const std::string&) {}},
    {"a folder", [](const std::string& path) { std::filesystem::create_directory(path); }},
    {"a pipe", [](const std::string& path) { EXPECT_EQ(mkfifo(path.c_str(), 0600), 0); }},
    {"a loop of links",
     [](const std::string& path) { std::filesystem::create_symlink(path, path); }},
    {"one byte", [](const std::string& path) { test::writeFile(path, "x"); }},
    {"10 MB of noise", [](const std::string& path) { test::writeFile(path, noise(10 << 20)); }},
};

TEST_F(Faults, PropertiesThatCannotBeReadLeaveTheDefaults) {
  startEnabled();
  for (const auto& bad : kBadFiles) {
    put(folder / "properties.conf", bad.make);
    EXPECT_EQ(client->property("State"), -1) << bad.what;
    EXPECT_EQ(playToEnd({"on"}), 0U) << bad.what;
    put(folder / "properties.conf",
        [](const std::string& path) { test::writeFile(path, kEnabled); });
    EXPECT_EQ(client->property("State"), 0) << bad.what;
  }
}

TEST_F(Faults, AnAlertThatCannotBePlayedEndsTheRequestAllTheSame) {
  startEnabled();
  for (const auto& bad : kBadFiles) {
    // That one can be played, for five minutes.
    if (std::string(bad.what) == "10 MB of noise") continue;
    put(folder / "files/error_mono.raw", bad.make);
    EXPECT_EQ(playToEnd({}, 4), 0U) << bad.what;
  }
}

TEST_F(Faults, AddendaThatCannotBeReadLeaveTheLexicon) {
  std::filesystem::create_directory(folder / "files");
  for (const auto& bad : kBadFiles) {
    // The library opens it itself, a pipe for ever, and complains of each line on standard output,
    // which a test does not read meanwhile.
    if (std::string(bad.what) == "a pipe") continue;
    put(folder / "files/addenda.lex", bad.make);
    std::error_code none;
    if (std::filesystem::is_regular_file(folder / "files/addenda.lex", none)) {
      test::writeFile(folder / "files/addenda.lex", noise(30'000));
    }
    startEnabled();
    EXPECT_EQ(playToEnd({"on"}), 0U) << bad.what;
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->exitStatus(), 1) << bad.what;
    client.reset();
  }
}

TEST_F(Faults, AReaderOfPropertiesNeverSeesOneThatIsBeingReplaced) {
  startEnabled();
  const int replacements = rounds(200, 1000);
  std::atomic<bool> done{false};
  test::Background writer([&] {
    // Of different lengths, so that a mixture of two would have half a line.
    for (int i = 0; i < replacements; ++i)
      setProperties(std::string(static_cast<std::size_t>(i) * 97 % 70'000, '#') + "\n" + kEnabled);
    done = true;
  });
  int reads = 0;
  for (; !done; ++reads)
    ASSERT_EQ(client->property("State"), 0);
  writer.get();
  EXPECT_GT(reads, replacements / 20);
  EXPECT_EQ(playToEnd({"on"}), 0U);
}

TEST_F(Faults, WhereNoThreadIsToBeHadCallersAreToldAndAllWorksLater) {
  start({.properties = std::string(kEnabled) + "device.feature.dbus-automation = 1\n"});
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

const struct {
  const char* what;
  const char* logged;
  std::function<bool(const std::string&)> prepare;
} kBadFolders[] = {
    {"full", "No space left on device",
     [](const std::string& path) {
       return mount("none", path.c_str(), "tmpfs", 0, "size=16k") == 0;
     }},
    {"read-only", "Read-only file system",
     [](const std::string& path) {
       return mount("none", path.c_str(), "tmpfs", MS_RDONLY, "") == 0;
     }},
    {"removed meanwhile", "No such file or directory", [](const std::string&) { return true; }},
};

TEST_F(Faults, AFolderThatTakesNoConversionIsLoggedAndTheNextOneIsWritten) {
  // Mounts that nobody else sees and that go with this process.
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    GTEST_SKIP() << "only root may mount";
  startEnabled();
  std::size_t asked = 0;
  for (const auto& bad : kBadFolders) {
    const std::string place = folder / bad.what;
    std::filesystem::create_directory(place);
    ASSERT_TRUE(bad.prepare(place)) << bad.what;
    client->fetchLater(test::longText().substr(0, 600), place + "/x.wav");
    ++asked;
    if (std::string(bad.what) == "removed meanwhile") std::filesystem::remove_all(place);
    const auto answers = client->awaitFetched(asked);
    ASSERT_EQ(answers.size(), asked) << bad.what;
    EXPECT_EQ(answers.back().error, "") << bad.what;
    EXPECT_EQ(daemon->countLog(bad.logged), 1) << bad.what;
    EXPECT_EQ(daemon->countLog("LOG_ERR "), static_cast<int>(asked)) << bad.what;
    EXPECT_EQ(client->fetch("on", folder / "good.wav").error, "");
    EXPECT_GT(test::readFile(folder / "good.wav").size(), 1000U) << bad.what;
    std::filesystem::remove(folder / "good.wav");
    umount(place.c_str());
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

TEST_F(Faults, TheLossOfTheBusEndsItAtEveryStage) {
  for (const auto& stage : kStages) {
    bus = test::PrivateBus(folder);
    std::filesystem::remove(folder / "log");
    startEnabled();
    test::writeFile(folder / "files/error_mono.raw", std::string(20 * 32000, '\x10'));
    stage.ask(*client);
    ASSERT_TRUE(daemon->waitForLog(stage.logged)) << stage.what;
    bus.kill();
    EXPECT_EQ(daemon->exitStatus(), 255) << stage.what;
    EXPECT_FALSE(std::filesystem::exists(folder / "run/quillspeak-daemon.pid")) << stage.what;
  }
}

TEST_F(Faults, ASecondCopyEndsAtEveryStageAndDisturbsNothing) {
  startEnabled();
  test::writeFile(folder / "files/error_mono.raw", std::string(3200, '\x10'));
  for (const auto& stage : kStages) {
    const int before = daemon->countLog(stage.logged);
    stage.ask(*client);
    // The cache is built once.
    const bool once = std::string(stage.logged).starts_with("QS_CT:");
    ASSERT_TRUE(daemon->waitForLog(stage.logged, once ? 1 : before + 1));
    Daemon second(folder, bus.address(), {.properties = kEnabled, .audio = "null"});
    EXPECT_EQ(second.exitStatus(), 1) << stage.what;
    EXPECT_EQ(playToEnd({"on"}), 0U) << stage.what;
  }
}

TEST_F(Faults, SigtermAtAnyMomentEndsItWithinASecond) {
  std::random_device entropy;
  const unsigned seed = entropy();
  std::mt19937 random(seed);
  for (int i = rounds(20, 200); i > 0; --i) {
    startEnabled();
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(random() % 300);
    while (std::chrono::steady_clock::now() < until) {
      client->play({"a word", "another one"}, static_cast<std::int32_t>(random() % 16));
      if (random() % 8 == 0) client->reload(0);
      if (random() % 8 == 0) client->fetchLater("on", folder / "on.wav");
    }
    const auto asked = std::chrono::steady_clock::now();
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->exitStatus(), 1) << "seed " << seed;
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - asked;
    EXPECT_LT(taken.count(), test::kSlowBuild ? 2 : 1) << "s, seed " << seed;
    client.reset();
  }
}

}  // namespace
