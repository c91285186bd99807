#include <algorithm>
#include <chrono>
#include <csignal>
#include <iterator>

#include <gtest/gtest.h>

#include "daemon/fixture.h"

namespace {

using namespace std::chrono_literals;
using test::Client;
using test::Daemon;

class Process : public test::DaemonTest {
 protected:
  /// Runs the command line to its end: what it printed; its exit status must be 0.
  std::string run(std::vector<std::string> arguments) {
    Daemon::Options options;
    options.arguments = std::move(arguments);
    Daemon tool(folder, bus.address(), options);
    std::string printed = tool.output();
    EXPECT_EQ(tool.exitStatus(), 0);
    log.emplace_back();
    for (const std::string& line : tool.log())
      log.back() += line + "\n";
    return printed;
  }
  const std::string& lastLog() const { return log.back(); }

  std::vector<std::string> log;
};

TEST_F(Process, TheCommandLineSaysHowItIsUsed) {
  const std::string usage =
      "usage: quillspeak-daemon [-h] play \"text to play\"\n"
      "       quillspeak-daemon [-h] dump \"text to speech in wave file\"\n";
  EXPECT_EQ(run({"-h"}), usage);
  EXPECT_EQ(run({"dump"}), usage);
  EXPECT_NE(lastLog().find("LOG_ERR error: Invalid arguments count: 2. Expected: 3"),
            std::string::npos);
  EXPECT_EQ(run({"play", "one", "two"}), usage);
  EXPECT_EQ(run({"sing", "this"}), usage);
  EXPECT_NE(lastLog().find("LOG_ERR error: Unknown operation argument."), std::string::npos);
  EXPECT_EQ(run({"play", "-1"}), "Invalid option: ?\n" + usage);
  EXPECT_NE(lastLog().find("LOG_DEBUG After parse input: rc=-1"), std::string::npos);
}

TEST_F(Process, TheCommandLineDumpsATextAndPlaysATone) {
  EXPECT_EQ(run({"dump", "hello"}), "");
  EXPECT_EQ(test::readFile(folder / "files/test.wav").substr(0, 4), "RIFF");
  EXPECT_NE(lastLog().find("LOG_NOTICE dumpFile text: hello"), std::string::npos);
  EXPECT_EQ(run({"play", "5"}), "Tone index: 5\n");
  EXPECT_EQ(test::readFile(folder / "files/test.rwb").substr(0, 4), "RIFF");
  const std::size_t samples = recording().size();
  EXPECT_GT(samples, 48000U) << "two seconds of a tone";
  EXPECT_LT(samples, 4U * 48000U);
}

TEST_F(Process, TheCommandLineWritesThroughNoLink) {
  std::filesystem::create_directory(folder / "files");
  test::writeFile(folder / "target", "precious");
  for (const char* const name : {"files/test.wav", "files/test.rwb"})
    std::filesystem::create_symlink(folder / "target", folder / name);
  run({"dump", "hello"});
  EXPECT_NE(lastLog().find("cannot write /tmp/test.wav: "), std::string::npos);
  run({"play", "99"});
  EXPECT_NE(lastLog().find("cannot write /tmp/test.rwb: "), std::string::npos);
  EXPECT_EQ(test::readFile(folder / "target"), "precious");
}

TEST_F(Process, ToneIndexOutOfRangeIsAnError) {
  EXPECT_EQ(run({"play", "99"}), "Tone index: 99\n\n Error in playOperation() \n");
}

TEST_F(Process, ASecondInstanceEndsBeforeItDoesAnything) {
  start();
  for (const auto& arguments : std::vector<std::vector<std::string>>{{}, {"dump", "x"}}) {
    Daemon::Options options;
    options.arguments = arguments;
    Daemon second(folder, bus.address(), options);
    EXPECT_EQ(second.output(), "");
    EXPECT_EQ(second.exitStatus(), 1);
  }
  EXPECT_EQ(daemon->countLog("LOG_ERR main: Only one instance of quillspeak can run at a time"), 2);
  EXPECT_EQ(playToEnd({"still here"}), 0U);
}

TEST_F(Process, SignalsReloadTheTraceSettingsOrEndTheProcess) {
  start();
  const int before = daemon->countLog("baseseverity  = 7");
  daemon->signal(SIGHUP);
  ASSERT_TRUE(daemon->waitForLog("baseseverity  = 7", before + 1));
  daemon->signal(SIGUSR2);
  ASSERT_TRUE(daemon->waitForLog("baseseverity  = 7", before + 2));
  EXPECT_EQ(daemon->countLog("LOG_NOTICE SIGNAL HUP/INITIAL TRC Processing..."), 2);
  EXPECT_EQ(daemon->log().front(), "openlog ident=quillspeak option=0x49 facility=0x80");
  EXPECT_TRUE(std::filesystem::exists(folder / "run/quillspeak-daemon.pid"));
  daemon->signal(SIGPIPE);
  EXPECT_EQ(client->property("Version"), 1);
  daemon->signal(SIGTERM);
  EXPECT_EQ(daemon->exitStatus(), 1);
  EXPECT_FALSE(std::filesystem::exists(folder / "run/quillspeak-daemon.pid"));
}

class Sigterm : public Process {
 protected:
  void expectEndBySigterm(const std::string& what) {
    const auto asked = std::chrono::steady_clock::now();
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->exitStatus(), 1) << what;
    EXPECT_LT(std::chrono::steady_clock::now() - asked, test::kSlowBuild ? 2s : 1s) << what;
  }
};

TEST_F(Sigterm, EndsItWithinASecondWhateverItDoes) {
  const struct {
    const char* what;
    const char* logged;
  } kStates[] = {
      {"connecting", "Detect that Automation is NOT active"},
      {"playing", "WriteTTSThread started"},
      {"playing the alert", "WriteTTSThread started"},
      {"converting", "QS_ConvertTTSThread: threadloop started"},
  };
  test::writeFile(folder / "files/error_mono.raw", std::string(20 * 32000, '\x10'));
  for (const auto& state : kStates) {
    std::filesystem::remove(folder / "log");
    daemon.emplace(folder, bus.address(), Daemon::Options{});
    Client caller(bus.address());
    const std::string what = state.what;
    ASSERT_TRUE(what == "connecting" || caller.awaitName());
    if (what == "playing") caller.play({test::longText().substr(0, 4000)});
    if (what == "playing the alert") caller.play({}, 4);
    if (what == "converting") caller.fetchLater(test::longText(), folder / "never.wav");
    ASSERT_TRUE(daemon->waitForLog(state.logged)) << what;
    expectEndBySigterm(what);
  }
}

TEST_F(Sigterm, EndsItWhileNobodyReadsItsOutput) {
  for (const char* const operation : {"-h", "dump"}) {
    std::filesystem::remove(folder / "log");
    daemon.emplace(folder, bus.address(),
                   Daemon::Options{.arguments = {operation}, .outputFull = true});
    ASSERT_TRUE(daemon->waitForLog("After parse input: rc=-1"));
    expectEndBySigterm(operation);
  }
}

TEST_F(Process, LossOfTheBusEndsItWithStatus255) {
  start();
  client->play({test::longText().substr(0, 400)});
  ASSERT_TRUE(daemon->waitForLog("WriteTTSThread started"));
  bus.kill();
  EXPECT_EQ(daemon->exitStatus(), 255);
  EXPECT_EQ(daemon->countLog("LOG_ERR Lost DBUS system bus connection, exiting."), 1);
  EXPECT_FALSE(std::filesystem::exists(folder / "run/quillspeak-daemon.pid"));
}

TEST_F(Sigterm, EndsItWhileItWaitsForABus) {
  bus.kill();
  daemon.emplace(folder, bus.address(), Daemon::Options{});
  ASSERT_TRUE(daemon->waitForLog("main: Error in quillspeak connecting to DBus"));
  ASSERT_TRUE(daemon->waitForLog("Sleeping for 20 seconds"));
  expectEndBySigterm("sleeping");
}

class Automation : public Process {
 protected:
  static constexpr char kFeatureOn[] =
      "device.accessibility.qs_enabled = true\ndevice.feature.dbus-automation = 1\n";

  void startWithFeature() {
    Daemon::Options options;
    options.properties = kFeatureOn;
    daemon.emplace(folder, bus.address(), options);
    client.emplace(bus.address());
  }
};

TEST_F(Automation, ServesWhereNobodyAnswersAndGivesTheNameUpWhenAsked) {
  startWithFeature();
  ASSERT_TRUE(client->awaitName());
  EXPECT_EQ(daemon->countLog("LOG_NOTICE testDBusThread: Client succesfully created"), 1);
  EXPECT_EQ(daemon->countLog("LOG_ERR testDBusThread: QS Active check: 0"), 1);
  EXPECT_EQ(daemon->countLog("main: test_automation detected mock service unavailable"), 1);
  // In the middle of a request and of a conversion: both are answered before the name goes.
  const std::uint64_t playing = client->play({test::longText().substr(0, 4000)}).value;
  std::string text;
  while (text.size() < 16000)
    text += "conversion ";
  client->fetchLater(text, folder / "never.wav");
  ASSERT_TRUE(daemon->waitForLog("QS_ConvertTTSThread: threadloop started"));
  EXPECT_EQ(client->reload(3).error, "");
  EXPECT_EQ(client->reload(1).error, "");
  ASSERT_TRUE(client->awaitName(false));
  EXPECT_EQ(daemon->countLog("LOG_ERR reloadConfig: Automation trigger detected:3"), 1);
  const auto result = client->awaitResult(playing);
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result->resultCode, 1U);
  const auto answers = client->awaitFetched(1);
  ASSERT_EQ(answers.size(), 1U);
  EXPECT_EQ(answers[0].error, "org.freedesktop.DBus.Error.Failed");
  // The 20 s pause and the 2 s of the check, then it is back.
  ASSERT_TRUE(client->awaitName());
  EXPECT_EQ(playToEnd({"back"}), 0U);
}

/// A test set-up that has the name; its `Version` has the type that `signature` says.
class NameOwner {
 public:
  NameOwner(const std::string& busAddress, const char* signature) : owner(busAddress) {
    EXPECT_GE(sd_bus_request_name(owner.bus(), "com.wexel.Quillspeak", 0), 0);
    const sd_bus_vtable version[] = {SD_BUS_VTABLE_START(0),
                                     SD_BUS_PROPERTY("Version", signature, read, 0, 0),
                                     SD_BUS_VTABLE_END};
    std::copy(std::begin(version), std::end(version), table);
    EXPECT_GE(sd_bus_add_object_vtable(owner.bus(), nullptr, "/com/wexel/Quillspeak",
                                       "com.wexel.QuillspeakInterface1", table, nullptr),
              0);
  }

  /// Answers until the daemon's log holds `part`; emits results that are not as declared meanwhile.
  void serveUntil(const Daemon& daemon, const std::string& part) {
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (daemon.countLog(part) == 0) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << part;
      sd_bus_emit_signal(owner.bus(), "/com/wexel/Quillspeak", "com.wexel.QuillspeakInterface1",
                         "ReportTTSPlayResult", "s", "not a list");
      while (sd_bus_process(owner.bus(), nullptr) > 0) {
      }
      sd_bus_wait(owner.bus(), 10000);
    }
  }

 private:
  static int read(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                  sd_bus_error*) {
    const std::string type = sd_bus_message_get_signature(reply, 0);
    return type == "h" ? sd_bus_message_append(reply, "h", 0)
                       : sd_bus_message_append(reply, "i", 9);
  }

  Client owner;
  sd_bus_vtable table[3];
};

TEST_F(Automation, StandsAsideWhileATestSetUpHasTheNameAndServesWhenItHasGone) {
  std::optional<NameOwner> owner(std::in_place, bus.address(), "i");
  startWithFeature();
  owner->serveUntil(*daemon, "Sleeping for 20 seconds");
  EXPECT_EQ(daemon->countLog("LOG_ERR testDBusThread: QS Active check: 1"), 1);
  EXPECT_EQ(daemon->countLog("LOG_NOTICE main: Detect that Automation IS active"), 1);
  EXPECT_EQ(daemon->countLog("Creating QS_Controller"), 0);
  owner.reset();
  ASSERT_TRUE(client->awaitName());
  EXPECT_EQ(playToEnd({"served again"}), 0U);
}

TEST_F(Automation, AnAnswerThatIsNoNumberCountsAsNobody) {
  NameOwner owner(bus.address(), "h");
  startWithFeature();
  owner.serveUntil(*daemon, "Creating QS_Controller");
  EXPECT_EQ(daemon->countLog("LOG_ERR testDBusThread: QS Active check: 0"), 1);
}

TEST_F(Process, AnAutomationTriggerWithoutTheFeatureIsOnlyLogged) {
  start();
  EXPECT_EQ(client->reload(-1).error, "");
  EXPECT_EQ(daemon->countLog("LOG_ERR reloadConfig: Automation trigger detected:-1"), 1);
  EXPECT_EQ(playToEnd({"still serving"}), 0U);
  EXPECT_EQ(daemon->countLog("Disconnecting DBus Connection"), 0);
}

}  // namespace
