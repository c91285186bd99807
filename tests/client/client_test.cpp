// The client as a process, against the daemon on a bus of its own.

#include <sys/wait.h>

#include "daemon/harness.h"

namespace {

struct Ended {
  int code = -1;
  std::string output{};
};

class CommandLine : public test::DaemonTest {
 protected:
  void SetUp() override { start({.audio = "null"}); }

  std::unique_ptr<test::ChildProcess> run(const std::vector<std::string>& arguments) const {
    return std::make_unique<test::ChildProcess>(
        QUILLSPEAK_CLIENT, arguments,
        test::Environment{"DBUS_SYSTEM_BUS_ADDRESS=" + bus.address(),
                          "QUILLSPEAK_PROPERTIES=" + (folder / "etc/properties.conf")});
  }
  static Ended end(test::ChildProcess& process) {
    Ended ended;
    ended.output = process.readAll();
    const int status = process.wait();
    if (WIFEXITED(status)) ended.code = WEXITSTATUS(status);
    return ended;
  }
  Ended finish(const std::vector<std::string>& arguments) const { return end(*run(arguments)); }
};

TEST_F(CommandLine, ExitCodesTellWhatBecameOfTheCall) {
  const std::string file = folder / "speech.wav";
  const struct {
    std::vector<std::string> arguments;
    int code;
  } cases[] = {
      {{"say", "hello", "--speed", "5", "--precedence", "polite"}, 0},
      {{"say", ""}, 1},
      {{"say", "\xff"}, 1},
      {{"say", "bell\a"}, 1},
      {{"say", std::string(4097, 'a')}, 1},
      {{"say", "hello", "--speed", "6"}, 2},
      {{"say", "hello", "--precedence", "loud"}, 2},
      {{"say", "hello", "--voice", "loud"}, 2},
      {{"volume", "-5"}, 0},
      {{"volume", "9"}, 2},
      {{"reload"}, 0},
      {{"stop", "1"}, 0},
      {{"file", "hello", file}, 0},
      {{"file", "hello", folder / "missing/speech.wav"}, 1},
      {{"status"}, 0},
      {{}, 2},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(finish(one.arguments).code, one.code) << testing::PrintToString(one.arguments);
  }
  EXPECT_FALSE(test::readWave(file).empty());
}

TEST_F(CommandLine, AnInterruptStopsTheSpeech) {
  const auto saying = run({"say", test::longText()});
  ASSERT_TRUE(daemon->waitForLog("WriteTTSThread started"));
  kill(saying->id(), SIGINT);
  EXPECT_EQ(end(*saying).code, 3);
  EXPECT_TRUE(client->until([&] { return !client->results().empty(); }));
}

TEST_F(CommandLine, ADaemonThatGoesEndsTheWait) {
  const auto saying = run({"say", test::longText()});
  ASSERT_TRUE(daemon->waitForLog("WriteTTSThread started"));
  daemon->signal(SIGKILL);
  EXPECT_EQ(end(*saying).code, 1);
  EXPECT_EQ(finish({"status", "--json"}).code, 1);
}

TEST_F(CommandLine, AHandleStopsASpeechThatNobodyWaitsFor) {
  const std::string handle = finish({"say", "--no-wait", test::longText()}).output;
  ASSERT_TRUE(daemon->waitForLog("WriteTTSThread started"));
  EXPECT_EQ(finish({"stop", handle.substr(0, handle.find('\n'))}).code, 0);
  EXPECT_EQ(client->awaitResult(std::stoull(handle))->resultCode, 1U);
}

TEST_F(CommandLine, ADisplacedRequestHasNoResult) {
  client->play({test::longText()}, 2);
  ASSERT_TRUE(daemon->waitForLog("WriteTTSThread started"));
  const auto saying = run({"say", "a"});
  ASSERT_TRUE(daemon->waitForLog("Sending string with size 1"));
  client->play({"b"}, 2);
  EXPECT_EQ(end(*saying).code, 4);
}

TEST_F(CommandLine, ASettingIsChangedInItsPlace) {
  const std::string speed = "device.accessibility.qs_speed";
  const auto file = [&](const char* value) {
    return "# mine\n" + speed + " = 2\n" + speed + " = " + value + "  # fast\nother = 1\n";
  };
  setProperties(file("4"));
  EXPECT_EQ(finish({"get", speed}).output, "4\n");
  EXPECT_EQ(finish({"set", speed, "5"}).code, 0);
  EXPECT_EQ(test::readFile(folder / "etc/properties.conf"), file("5"));
  EXPECT_TRUE(daemon->waitForLog("ReloadConfig: 0"));
  EXPECT_EQ(finish({"set", speed, "6"}).code, 2);
  EXPECT_EQ(finish({"set", "qs_voise", "slt"}).code, 2);
  EXPECT_EQ(finish({"set", "qs_voice", "slt"}).code, 0);
  EXPECT_EQ(test::readFile(folder / "etc/properties.conf"), file("5") + "qs_voice = slt\n");
}

}  // namespace
