// The command line, signals, and the test set-up that may take the name.

#include <map>

#include "daemon/harness.h"

namespace {

using namespace std::chrono_literals;

class Process : public test::DaemonTest {
 protected:
  /// Runs the command line to its end: what it printed; its exit status must be 0.
  std::string run(const std::vector<std::string>& arguments) {
    launch({.arguments = arguments});
    std::string printed = daemon->output();
    EXPECT_EQ(daemon->exitStatus(), 0);
    return printed;
  }
};

TEST_F(Process, TheCommandLineDoesWhatItIsToldOrSaysHowItIsUsed) {
  const std::string usage =
      "usage: quillspeak-daemon [-h] play \"text to play\"\n"
      "       quillspeak-daemon [-h] dump \"text to speech in wave file\"\n";
  const struct {
    std::vector<std::string> arguments;
    std::string printed;
    const char* logged;
  } kRows[] = {
      {{"-h"}, usage, "After parse input: rc=-1"},
      {{"dump"}, usage, "LOG_ERR error: Invalid arguments count: 2. Expected: 3"},
      {{"sing", "this"}, usage, "LOG_ERR error: Unknown operation argument."},
      {{"play", "-1"}, "Invalid option: ?\n" + usage, "After parse input: rc=-1"},
      {{"dump", "hello"}, "", "LOG_NOTICE dumpFile text: hello"},
      {{"play", "99"}, "Tone index: 99\n\n Error in playOperation() \n", "rc=-1"},
      {{"play", "5"}, "Tone index: 5\n", "After parse input: rc=0"},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(run(row.arguments), row.printed);
    EXPECT_EQ(daemon->countLog(row.logged), 1) << row.logged;
  }
  EXPECT_GT(test::readWave(folder / "files/test.wav").size(), 1000U);
  EXPECT_GT(test::readWave(folder / "files/test.rwb").size(), 1000U);
  const std::size_t samples = test::readWave(folder / "sound.wav").size();
  EXPECT_GT(samples, 48000U) << "two seconds of a tone";
  EXPECT_LT(samples, 4U * 48000U);
}

TEST_F(Process, SignalsReloadTheTraceSettingsOrEndTheProcess) {
  start();
  EXPECT_EQ(daemon->countLog("openlog ident=quillspeak option=0x49 facility=0x80"), 1);
  EXPECT_TRUE(std::filesystem::exists(folder / "run/quillspeak-daemon.pid"));
  int loaded = 1;
  for (const int number : {SIGHUP, SIGUSR2}) {
    daemon->signal(number);
    ASSERT_TRUE(daemon->waitForLog("baseseverity  = 7", ++loaded));
  }
  EXPECT_EQ(daemon->countLog("LOG_NOTICE SIGNAL HUP/INITIAL TRC Processing..."), 2);
  daemon->signal(SIGPIPE);
  EXPECT_EQ(client->property("Version"), 1);
}

TEST_F(Process, SigtermEndsItWhereverItWaits) {
  for (const char* const operation : {"-h", "dump"}) {
#ifdef __SANITIZE_THREAD__
    break;  // the sanitizer itself waits for the reader when the process ends
#endif
    launch({.arguments = {operation}, .outputFull = true});
    ASSERT_TRUE(daemon->waitForLog("After parse input: rc=-1")) << "nobody reads its output";
    daemon->signal(SIGTERM);
    expectEnd(1);
  }
  bus.kill();
  launch();
  ASSERT_TRUE(daemon->waitForLog("main: Error in quillspeak connecting to DBus"));
  ASSERT_TRUE(daemon->waitForLog("Sleeping for 20 seconds"));
  daemon->signal(SIGTERM);
  expectEnd(1);
}

class Automation : public test::DaemonTest {
 protected:
  void launchWithFeature() {
    launch({.properties = test::kWithAutomation});
    client.emplace(bus.address());
  }
};

TEST_F(Automation, ServesWhereNobodyAnswersAndGivesTheNameUpWhenAsked) {
  launchWithFeature();
  ASSERT_TRUE(client->awaitName());
  EXPECT_EQ(daemon->countLog("LOG_NOTICE testDBusThread: Client succesfully created"), 1);
  EXPECT_EQ(daemon->countLog("LOG_ERR testDBusThread: QS Active check: 0"), 1);
  EXPECT_EQ(daemon->countLog("main: test_automation detected mock service unavailable"), 1);
  // In the middle of a request and of a conversion: both are answered before the name goes.
  const std::uint64_t playing = client->play({test::longText()}).value;
  client->fetchLater(test::times(1450, "conversion "), folder / "never.wav");
  ASSERT_TRUE(daemon->waitForLog("QS_ConvertTTSThread: threadloop started"));
  EXPECT_EQ(client->reload(3).error, "");
  EXPECT_EQ(client->reload(1).error, "");
  ASSERT_TRUE(client->awaitName(false));
  EXPECT_EQ(daemon->countLog("LOG_ERR reloadConfig: Automation trigger detected:3"), 1);
  EXPECT_EQ(client->results().size(), 1U);
  EXPECT_EQ(resultOf(playing), 1U);
  const auto answers = client->awaitFetched(1);
  ASSERT_EQ(answers.size(), 1U);
  EXPECT_EQ(answers[0].error, "org.freedesktop.DBus.Error.Failed");
  // The 20 s pause and the 2 s of the check, then it is back.
  ASSERT_TRUE(client->awaitName());
  EXPECT_EQ(playToEnd({"back"}), 0U);
}

// The name is given up a second after it is asked for; the time to plan a stage for. Those that are
// not asked for again have a second request queued; a session that opens is with the sound server's
// tests.
TEST_F(Automation, ATearDownReportsWhatSoundedAndGivesTheNameUpInTime) {
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

/// A test set-up that has the name; its `Version` has the type that `signature` says.
class NameOwner {
 public:
  NameOwner(const std::string& busAddress, const char* signature)
      : owner(busAddress),
        table{SD_BUS_VTABLE_START(0), SD_BUS_PROPERTY("Version", signature, read, 0, 0),
              SD_BUS_VTABLE_END} {
    EXPECT_GE(sd_bus_request_name(owner.bus(), test::kService, 0), 0);
    EXPECT_GE(sd_bus_add_object_vtable(owner.bus(), nullptr, test::kPath, test::kInterface, table,
                                       nullptr),
              0);
  }

  /// Answers until the daemon's log holds `part`; emits results that are not as declared meanwhile.
  bool serveUntil(const test::Daemon& daemon, const char* part) {
    return owner.until([&] {
      sd_bus_emit_signal(owner.bus(), test::kPath, test::kInterface, "ReportTTSPlayResult", "s",
                         "not a list");
      return daemon.countLog(part) > 0;
    });
  }

 private:
  static int read(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                  sd_bus_error*) {
    return sd_bus_message_append(reply, sd_bus_message_get_signature(reply, 0), 0);
  }

  test::Client owner;
  const sd_bus_vtable table[3];
};

TEST_F(Automation, StandsAsideWhileATestSetUpHasTheNameAndServesWhenItHasGone) {
  std::optional<NameOwner> owner(std::in_place, bus.address(), "i");
  launchWithFeature();
  ASSERT_TRUE(owner->serveUntil(*daemon, "Sleeping for 20 seconds"));
  EXPECT_EQ(daemon->countLog("LOG_ERR testDBusThread: QS Active check: 1"), 1);
  EXPECT_EQ(daemon->countLog("LOG_NOTICE main: Detect that Automation IS active"), 1);
  EXPECT_EQ(daemon->countLog("Creating QS_Controller"), 0);
  owner.reset();
  ASSERT_TRUE(client->awaitName());
  EXPECT_EQ(playToEnd({"served again"}), 0U);
}

TEST_F(Automation, TheLossOfTheBusEndsItWhileTheOwnerOfTheNameIsAsked) {
  // It has the name and never answers.
  const NameOwner owner(bus.address(), "i");
  launchWithFeature();
  ASSERT_TRUE(daemon->waitForLog("testDBusThread: Client succesfully created"));
  bus.kill();
  expectEnd(255);
}

TEST_F(Automation, AnAnswerThatIsNoNumberCountsAsNobody) {
  NameOwner owner(bus.address(), "h");
  launchWithFeature();
  ASSERT_TRUE(owner.serveUntil(*daemon, "Creating QS_Controller"));
  EXPECT_EQ(daemon->countLog("LOG_ERR testDBusThread: QS Active check: 0"), 1);
}

}  // namespace
