// A real sound server that dies, hangs or is away while the daemon speaks through it. Real time.

#include "support/sound_server.h"

#include "daemon/harness.h"

namespace {

using namespace std::chrono_literals;

constexpr char kLost[] = "LOG_ERR audio playback session lost";
constexpr char kDropped[] = "LOG_ERR QS_MessageQueueThread: Error in startMsRTPSession()";

class SoundServerFaults : public test::DaemonTest {
 protected:
  void SetUp() override {
    test::useSoundServer(folder);
    server.emplace(folder);
  }

  void startOnServer() { start({.properties = test::kWithAutomation, .audio = "alsa:pulse"}); }

  /// Asks for some ten seconds of speech; its handle once it is heard.
  std::uint64_t speakUntilHeard() {
    test::SoundRecording recording;
    const std::uint64_t handle = client->play({test::longText().substr(0, 220)}).value;
    EXPECT_EQ(recording.take(4800).size(), 4800U);
    return handle;
  }

  /// How long it takes from the call until a word is heard; its result must be 0.
  std::chrono::duration<double> timeUntilHeard() {
    test::SoundRecording recording;
    const auto asked = std::chrono::steady_clock::now();
    const std::uint64_t handle = client->play({"hello"}).value;
    EXPECT_EQ(recording.take(480).size(), 480U);
    const auto heard = std::chrono::steady_clock::now();
    EXPECT_EQ(resultOf(handle), 0U);
    return heard - asked;
  }

  std::optional<test::SoundServer> server;
};

TEST_F(SoundServerFaults, AServerThatDiesInMidWordIsFoundAgainSoonOrAfterTenSeconds) {
  startOnServer();
  for (const auto away : {0s, 10s}) {
    const std::uint64_t cut = speakUntilHeard();
    const int lost = daemon->countLog(kLost);
    const auto killed = std::chrono::steady_clock::now();
    server.reset();
    // Nothing holds it up any more.
    EXPECT_EQ(resultOf(cut), 0U) << "ended";
    EXPECT_LT(std::chrono::steady_clock::now() - killed, 3s);
    const std::size_t results = client->results().size();
    for (int dropped = 1; std::chrono::steady_clock::now() < killed + away; ++dropped) {
      client->play({"unheard"});
      ASSERT_TRUE(daemon->waitForLog(kDropped, dropped));
      client->listen(500ms);
    }
    EXPECT_EQ(client->results().size(), results) << "what cannot begin is dropped without a result";
    EXPECT_EQ(daemon->countLog(kLost), lost + 1) << "once, not for each frame";
    server.emplace(folder);
    EXPECT_LT(timeUntilHeard(), test::kSlowBuild ? 2s : 1s);
  }
}

TEST_F(SoundServerFaults, AServerThatHangsForThreeSecondsIsHeardAgain) {
  startOnServer();
  const std::uint64_t cut = speakUntilHeard();
  server->signal(SIGSTOP);
  const auto stuck = std::chrono::steady_clock::now();
  EXPECT_EQ(resultOf(cut), 0U) << "ended";
  EXPECT_LT(std::chrono::steady_clock::now() - stuck, test::kSlowBuild ? 6s : 3s);
  EXPECT_EQ(daemon->countLog(kLost), 1);
  client->play({"unheard"});
  EXPECT_TRUE(daemon->waitForLog(kDropped));
  while (std::chrono::steady_clock::now() < stuck + 3s)
    client->listen(100ms);
  server->signal(SIGCONT);
  EXPECT_LT(timeUntilHeard(), test::kSlowBuild ? 5s : 2500ms);
}

TEST_F(SoundServerFaults, AServerThatHangsHoldsUpNeitherStopNorTearDownNorEnd) {
  startOnServer();
  const std::uint64_t cut = speakUntilHeard();
  server->signal(SIGSTOP);
  auto asked = std::chrono::steady_clock::now();
  EXPECT_EQ(client->stop(cut).error, "");
  EXPECT_LT(std::chrono::steady_clock::now() - asked, test::kSlowBuild ? 100ms : 50ms);
  EXPECT_EQ(resultOf(cut), 1U);
  EXPECT_LT(std::chrono::steady_clock::now() - asked, test::kSlowBuild ? 6s : 3s);

  // The name is given up a second after it is asked for; a session is opened all the time.
  asked = std::chrono::steady_clock::now();
  EXPECT_EQ(client->reload(1).error, "");
  for (int i = 0; i < 9; ++i) {
    client->play({"unheard"}, 1);
    client->listen(100ms);
  }
  ASSERT_TRUE(client->awaitName(false));
  EXPECT_LT(std::chrono::steady_clock::now() - asked, test::kSlowBuild ? 4s : 2s);
  daemon->signal(SIGTERM);
  asked = std::chrono::steady_clock::now();
  EXPECT_EQ(daemon->exitStatus(), 1);
  EXPECT_LT(std::chrono::steady_clock::now() - asked, test::kSlowBuild ? 2s : 1s);
}

class StreamRole : public SoundServerFaults, public testing::WithParamInterface<bool> {};

/// What the sound server knows of the streams that it plays.
std::string streamProperties() {
  return test::ChildProcess("/usr/bin/pactl", {"list", "sink-inputs"}, {"LC_ALL=C"}).readAll();
}

TEST_P(StreamRole, IsAccessibilityWhereTheUserWantsNoOther) {
  const bool usersOwn = GetParam();
  usersOwn ? setenv("PULSE_PROP", "media.role=music x.y=z", 1) : unsetenv("PULSE_PROP");
  startOnServer();
  speakUntilHeard();
  const std::string properties = streamProperties();
  for (const std::string_view one :
       {usersOwn ? "media.role = \"music\"" : "media.role = \"a11y\"",
        "application.name = \"Quillspeak\"", "application.icon_name = \"preferences-desktop-"})
    EXPECT_NE(properties.find(one), std::string::npos) << one << " in\n" << properties;
}

INSTANTIATE_TEST_SUITE_P(Users, StreamRole, testing::Bool());

}  // namespace
