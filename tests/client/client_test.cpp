// The client as a process, against the daemon on a bus of its own.

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "daemon/harness.h"

namespace {

using testing::IsNotSubstring;
using testing::IsSubstring;

struct Ended {
  int code = -1;
  std::string output{};  // on both streams
};

const std::string kSpeed = "device.accessibility.qs_speed";

class CommandLine : public test::DaemonTest {
 protected:
  void SetUp() override { start({.audio = "null"}); }

  /// A script whose "$0" is the client and "$@" the arguments.
  std::unique_ptr<test::ChildProcess> shell(const std::string& script,
                                            std::vector<std::string> arguments = {}) const {
    arguments.insert(arguments.begin(), {"-c", script, QUILLSPEAK_CLIENT});
    return std::make_unique<test::ChildProcess>(
        "/bin/sh", arguments,
        test::Environment{"DBUS_SYSTEM_BUS_ADDRESS=" + bus.address(),
                          "QUILLSPEAK_PROPERTIES=" + (folder / "etc/properties.conf")});
  }
  std::unique_ptr<test::ChildProcess> run(const std::vector<std::string>& arguments) const {
    return shell("exec \"$0\" \"$@\" 2>&1", arguments);
  }
  static Ended end(test::ChildProcess& process) {
    Ended ended;
    ended.output = process.readAll();
    const int status = process.wait();
    if (WIFEXITED(status)) ended.code = WEXITSTATUS(status);
    return ended;
  }
  Ended finish(const std::vector<std::string>& arguments) const { return end(*run(arguments)); }

  /// What `watch` has printed. It is there when its first line is.
  std::string watched() const { return test::readFile(folder / "watched"); }
  std::unique_ptr<test::ChildProcess> startWatching() {
    auto watching = shell("exec \"$0\" watch --json > " + (folder / "watched") + " 2>&1");
    EXPECT_TRUE(client->until([&] {
      client->stop(client->play({"a"}).value);
      return watched().find('\n') != std::string::npos;
    }));
    return watching;
  }

  /// From now on the bus refuses calls of `member`.
  void deny(const std::string& member) {
    std::string rules = test::readFile(folder / "bus.conf");
    rules.insert(rules.find("</policy>"), "<deny send_interface=\"" +
                                              std::string(test::kInterface) + "\" send_member=\"" +
                                              member + "\"/>");
    test::writeFile(folder / "bus.conf", rules);
    constexpr char kBus[] = "org.freedesktop.DBus";
    ASSERT_GE(sd_bus_call_method(client->bus(), kBus, "/org/freedesktop/DBus", kBus, "ReloadConfig",
                                 nullptr, nullptr, ""),
              0);
  }
};

TEST_F(CommandLine, ExitCodesTellWhatBecameOfTheCall) {
  const std::string file = folder / "speech.wav";
  const struct {
    std::vector<std::string> arguments;
    int code;
    std::string says{};
  } cases[] = {
      {{"say", "[a, b]", "hello", "--speed", "5", "--precedence", "polite"}, 0},
      {{"say", ""}, 1},
      {{"say", "\xff"}, 1},
      {{"say", "bell\a"}, 1},
      {{"say", std::string(4097, 'a')}, 1},
      {{"say", "hello", "--speed", "6"}, 2, "from 1 to 5"},
      {{"say", "hello", "--precedence", "loud"}, 2, "polite"},
      {{"say", "hello", "--voice", "loud"}, 2, "fast"},
      {{"say", "hello", "--speed"}, 2, "--speed takes one value"},
      {{"say", "hello", "--alert=loud"}, 2, "--alert takes no value"},
      {{"say", "hello", "--wait", "9", "--no-wait"}, 2, "say --help"},
      {{"say", "--hello"}, 2, "put -- before"},
      {{"say", "-hello"}, 2, "put -- before"},
      {{"volume", "-05"}, 0},
      {{"volume", "9"}, 2, "from -5 to 8"},
      {{"reload"}, 0},
      {{"stop", "18446744073709551615"}, 0},
      {{"stop", "18446744073709551616"}, 2, "say --no-wait"},
      {{"stop"}, 2, "stop --help"},
      {{"file", "hello", file}, 0},
      {{"file", "hello", folder / "missing/speech.wav"}, 1, "was not written"},
      {{"file", "hello", ""}, 2, "name a file"},
      {{"set", kSpeed, "6"}, 2, "1 to 5"},
      {{"set", "qs_voise", "slt"}, 2, "qs_voice"},
      {{"speak", "hello"}, 2, "--help lists the commands"},
      {{}, 2, "--help lists the commands"},
  };
  for (const auto& one : cases) {
    const Ended ended = finish(one.arguments);
    EXPECT_EQ(ended.code, one.code) << testing::PrintToString(one.arguments);
    EXPECT_PRED_FORMAT2(IsSubstring, one.says, ended.output);
  }
  EXPECT_TRUE(daemon->waitForLog("Sending string with size 6")) << "the one in brackets";
  EXPECT_FALSE(test::readWave(file).empty());
}

TEST_F(CommandLine, StandardInputIsSpoken) {
  const auto saying = shell("printf 'hello\\n' | \"$0\" say");
  EXPECT_EQ(end(*saying).code, 0);
  EXPECT_TRUE(daemon->waitForLog("Sending string with size 5"));
}

TEST_F(CommandLine, StreamsThatFailAreSaidSo) {
  const char kInput[] = "standard input cannot be read";
  const char kOutput[] = "standard output cannot be written to";
  const struct {
    const char* script;
    const char* says;
  } cases[] = {
      {"\"$0\" say 2>&1 </", kInput},
      {"\"$0\" say 2>&1 <&-", kInput},
      {"(head -c 4096 /dev/zero | tr '\\0' a; echo; echo b) | \"$0\" say 2>&1", "split it"},
      {"\"$0\" status 2>&1 >/dev/full", kOutput},
      {"\"$0\" status 2>&1 >&-", kOutput},
      {"\"$0\" --help 2>&1 >/dev/full", kOutput},
      {"\"$0\" say --no-wait a 2>&1 >/dev/full", kOutput},
  };
  for (const auto& one : cases) {
    const Ended ended = end(*shell(one.script));
    EXPECT_EQ(ended.code, 1) << one.script;
    EXPECT_PRED_FORMAT2(IsSubstring, one.says, ended.output) << one.script;
  }
  const auto watching = shell("exec \"$0\" watch 2>&1 >/dev/full");
  EXPECT_TRUE(client->until([&] {
    client->stop(client->play({"a"}).value);
    siginfo_t gone{};
    return waitid(P_PID, static_cast<id_t>(watching->id()), &gone, WEXITED | WNOHANG | WNOWAIT) ==
               0 &&
           gone.si_pid != 0;
  }));
  EXPECT_EQ(end(*watching).code, 1);
}

TEST_F(CommandLine, AnInterruptDoesNotWaitForADaemonThatHangs) {
  for (const bool wakes : {false, true}) {
    daemon->signal(SIGSTOP);
    const auto saying = run({"say", test::longText()});
    const std::string state = "/proc/" + std::to_string(saying->id()) + "/status";
    // Both signals are held from shortly before the call on.
    ASSERT_TRUE(client->until([&] {
      return test::readFile(state).find("SigBlk:\t0000000000004002") != std::string::npos;
    }));
    kill(saying->id(), SIGINT);
    if (wakes) daemon->signal(SIGCONT);
    const Ended ended = end(*saying);
    EXPECT_EQ(ended.code, 3);
    // One that wakes confirms in time, if the machine lets it.
    if (!wakes) {
      EXPECT_PRED_FORMAT2(IsSubstring, "has not taken the text", ended.output);
    }
    daemon->signal(SIGCONT);
  }
  EXPECT_TRUE(daemon->waitForLog("StopTTSPlay: "));
}

TEST_F(CommandLine, AnInterruptStopsTheSpeech) {
  const auto saying = run({"say", test::longText()});
  ASSERT_TRUE(daemon->waitForLog("WriteTTSThread started"));
  kill(saying->id(), SIGINT);
  const Ended ended = end(*saying);
  EXPECT_EQ(ended.code, 3);
  EXPECT_EQ(ended.output, "");
  EXPECT_TRUE(client->until([&] { return !client->results().empty(); }));
}

TEST_F(CommandLine, ADaemonThatGoesEndsTheWait) {
  const auto saying = run({"say", test::longText()});
  ASSERT_TRUE(daemon->waitForLog("WriteTTSThread started"));
  daemon->signal(SIGKILL);
  EXPECT_EQ(end(*saying).code, 1);
  const Ended status = finish({"status", "--json"});
  EXPECT_EQ(status.code, 1);
  EXPECT_PRED_FORMAT2(IsSubstring, "\"running\":false", status.output);
  for (const char* command : {"reload", "watch"}) {
    const Ended ended = finish({command});
    EXPECT_EQ(ended.code, 1) << command;
    EXPECT_PRED_FORMAT2(IsSubstring, "systemctl start quillspeak", ended.output) << command;
  }
}

TEST_F(CommandLine, TheLossOfTheBusEndsEachWait) {
  const auto watching = startWatching();
  const auto saying = run({"say", test::longText()});
  ASSERT_TRUE(daemon->waitForLog("Sending string with size 2640"));
  // Its reply has gone out before this one.
  ASSERT_TRUE(client->property("Version"));
  bus.kill();
  const Ended said = end(*saying);
  EXPECT_EQ(said.code, 1);
  EXPECT_PRED_FORMAT2(IsSubstring, "the bus was lost", said.output);
  EXPECT_EQ(end(*watching).code, 1);
  EXPECT_PRED_FORMAT2(IsSubstring, "the bus was lost", watched());
}

TEST_F(CommandLine, OnlyTheDaemonsResultsCount) {
  const auto watching = startWatching();
  sd_bus_emit_signal(client->bus(), test::kPath, test::kInterface, "ReportTTSPlayResult", "asuuuut",
                     1, "forged", 0U, 0U, 0U, 0U, std::uint64_t{4711});
  const std::uint64_t handle = client->play({"genuine\x7F\xC2\x9B"}).value;
  EXPECT_TRUE(test::awaitFile(folder / "watched", [&] {
    return watched().find("[\"genuine\\u007f\\u009b\"],\"type\":0}\n") != std::string::npos;
  }));
  kill(watching->id(), SIGINT);
  EXPECT_EQ(end(*watching).code, 0);
  EXPECT_PRED_FORMAT2(IsSubstring, "\"handle\":" + std::to_string(handle), watched());
  EXPECT_PRED_FORMAT2(IsNotSubstring, "forged", watched());
}

TEST_F(CommandLine, AHandleStopsASpeechThatNobodyWaitsFor) {
  const std::string handle = finish({"say", "--no-wait", test::longText()}).output;
  ASSERT_TRUE(daemon->waitForLog("WriteTTSThread started"));
  EXPECT_EQ(finish({"stop", handle.substr(0, handle.find('\n'))}).code, 0);
  EXPECT_EQ(client->awaitResult(std::stoull(handle))->resultCode, 1U);
}

TEST_F(CommandLine, ADisplacedRequestHasNoResult) {
  const std::uint64_t before = client->play({test::longText()}, 2).value;
  ASSERT_TRUE(daemon->waitForLog("WriteTTSThread started"));
  const auto saying = run({"say", "a"});
  ASSERT_TRUE(daemon->waitForLog("Sending string with size 1"));
  client->play({"b"}, 2);
  client->stop(before);
  const Ended ended = end(*saying);
  EXPECT_EQ(ended.code, 4);
  EXPECT_PRED_FORMAT2(IsSubstring, "no result will come", ended.output);
}

TEST_F(CommandLine, AConversionIsShownOnATerminalAndMayBeLeft) {
  daemon->signal(SIGSTOP);
  const auto converting =
      shell("export SHELL=/bin/sh FILE=" + (folder / "speech.wav") +
            "; exec script -qec \"echo \\$\\$; exec $0 file hello \\$FILE\" /dev/null </dev/null");
  const std::string shown = converting->readUntil("converting: 0:01");
  kill(static_cast<pid_t>(std::stol(shown)), SIGINT);
  const Ended ended = end(*converting);
  EXPECT_EQ(ended.code, 4);
  EXPECT_PRED_FORMAT2(IsSubstring, "\r\33[Kquillspeak: interrupted; the daemon goes on",
                      ended.output);
  daemon->signal(SIGCONT);
}

TEST_F(CommandLine, ARefusalNamesWhatLiftsIt) {
  deny("ReloadConfig");
  // The group would not help root.
  const char* const remedy = geteuid() == 0 ? "com.wexel.Quillspeak.conf" : "join the group";
  const std::vector<std::string> set{"set", kSpeed, "5"};
  const std::vector<std::string> cases[] = {{"reload"}, set, set};
  for (const auto& arguments : cases) {
    const Ended ended = finish(arguments);
    EXPECT_EQ(ended.code, 1) << arguments[0];
    EXPECT_PRED_FORMAT2(IsSubstring, remedy, ended.output) << arguments[0];
  }
  EXPECT_EQ(finish({"get", kSpeed}).output, "5\n");
}

TEST_F(CommandLine, ASettingIsChangedInItsPlace) {
  const auto file = [&](const char* value) {
    return "# mine\n" + kSpeed + " = 2\n" + kSpeed + " = " + value + "  # fast\nother = 1\n";
  };
  setProperties(file("4"));
  const std::string path = folder / "etc/properties.conf";
  chmod(path.c_str(), 0640);
  const uid_t owner = geteuid() == 0 ? 65534 : geteuid();
  ASSERT_EQ(chown(path.c_str(), owner, static_cast<gid_t>(-1)), 0);
  EXPECT_EQ(finish({"set", kSpeed, "5"}).code, 0);
  EXPECT_EQ(test::readFile(path), file("5"));
  struct stat state {};
  ASSERT_EQ(stat(path.c_str(), &state), 0);
  EXPECT_EQ(state.st_mode & 07777, 0640U);
  EXPECT_EQ(state.st_uid, owner);
  EXPECT_TRUE(daemon->waitForLog("ReloadConfig: 0"));
  EXPECT_EQ(finish({"set", "qs_voice", "slt"}).code, 0);
  EXPECT_EQ(test::readFile(path), file("5") + "qs_voice = slt\n");
}

TEST_F(CommandLine, WhatIsInForceIsTold) {
  setProperties(kSpeed + " = 7\nqs_voice = kal16\n");
  EXPECT_EQ(finish({"get", kSpeed}).output, "3\n");
  const std::string all = finish({"get"}).output;
  EXPECT_PRED_FORMAT2(IsSubstring, kSpeed + " = 3  # default\n", all);
  EXPECT_PRED_FORMAT2(IsSubstring, "qs_voice = kal16\n", all);
  EXPECT_EQ(finish({"get", "qs_voice", "--json"}).output,
            R"({"qs_voice":{"default":false,"value":"kal16"}})"
            "\n");
  const std::string properties = finish({"get", "--json"}).output;
  EXPECT_PRED_FORMAT2(IsSubstring, "\"properties\":" + properties.substr(0, properties.size() - 1),
                      finish({"status", "--json"}).output);
  EXPECT_PRED_FORMAT2(IsSubstring, all, finish({"status"}).output);
  EXPECT_PRED_FORMAT2(IsSubstring, "next start", finish({"set", "qs_cache", "disable"}).output);
  EXPECT_TRUE(daemon->waitForLog("ReloadConfig: 0"));
}

TEST_F(CommandLine, ReadersAndOtherWritersSeeWholeSettings) {
  const std::string rest(100'000, '#');
  setProperties(rest + "\n" + kSpeed + " = 1\nqs_voice = slt\n");
  std::atomic<bool> done{false};
  int torn = 0;
  std::thread reader([&] {
    while (!done) {
      const std::string text = test::readFile(folder / "etc/properties.conf");
      torn += text.starts_with(rest) && text.find("\nqs_voice = ") != std::string::npos ? 0 : 1;
    }
  });
  for (const char* speed : {"2", "3", "4", "5"}) {
    const std::string voice = *speed % 2 == 0 ? "kal16" : "slt";
    const auto other = run({"set", "qs_voice", voice});
    EXPECT_EQ(finish({"set", kSpeed, speed}).code, 0);
    EXPECT_EQ(end(*other).code, 0);
    std::string wanted = rest;
    wanted.append("\n").append(kSpeed).append(" = ").append(speed);
    wanted.append("\nqs_voice = ").append(voice).append("\n");
    EXPECT_EQ(test::readFile(folder / "etc/properties.conf"), wanted);
  }
  done = true;
  reader.join();
  EXPECT_EQ(torn, 0);
}

}  // namespace
