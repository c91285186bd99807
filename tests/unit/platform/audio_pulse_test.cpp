// The media server's functions over a real sound server: what is heard, and what happens when the
// server hangs or dies. Real time.

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/media_server.h"
#include "support/scratch_folder.h"
#include "support/sound_server.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Samples = std::vector<std::int16_t>;

int send(int handle, const Samples& samples) {
  return ms_sendDataToAudPlayback(handle, samples.data(),
                                  static_cast<unsigned int>(2 * samples.size()));
}

class PulseAudioTest : public testing::Test {
 protected:
  void SetUp() override {
    test::useSoundServer(folder);
    setenv("QUILLSPEAK_AUDIO", "alsa:pulse", 1);
    startServer();
    EXPECT_EQ(ms_start(), 0);
  }
  void TearDown() override {
    server->signal(SIGCONT);
    EXPECT_EQ(ms_stop(), 0);
  }

  void startServer() {
    server.reset();
    server = std::make_unique<test::SoundServer>(folder);
  }

  /// Opens as soon as what was stuck has come back.
  static int openInTime() {
    const auto deadline = Clock::now() + 10s;
    int handle = ms_openAudPlayback(2);
    while (handle == 0 && Clock::now() < deadline) {
      std::this_thread::yield();
      handle = ms_openAudPlayback(2);
    }
    return handle;
  }

  /// Sends until a write fails, for at most 5 s of sound: its status.
  static int sendUntilFailure(int handle) {
    const Samples step(480, 100);
    int status = 0;
    for (int i = 0; i < 500 && status >= 0; ++i)
      status = send(handle, step);
    return status;
  }

  template <typename Function>
  static Clock::duration timed(Function function) {
    const auto start = Clock::now();
    function();
    return Clock::now() - start;
  }

  test::ScratchFolder folder;
  std::unique_ptr<test::SoundServer> server;
};

// A call that gives up after a second, on a machine that has other things to do.
constexpr auto kGivenUp = 2s;
constexpr auto kAtOnce = 500ms;

TEST_F(PulseAudioTest, HearsExactlyWhatWasSentInTheTimeOfTheSound) {
  test::SoundRecording recording;
  Samples sent(72000);
  for (std::size_t i = 0; i < sent.size(); ++i)
    sent[i] = static_cast<std::int16_t>(1 + i % 30011);
  const int handle = ms_openAudPlayback(2);
  ASSERT_NE(handle, 0);
  const auto taken = timed([&] {
    EXPECT_EQ(send(handle, sent), 144000);
    EXPECT_EQ(ms_closeAudPlayback(handle), 0);
  });
  EXPECT_GE(taken, 1500ms);
  EXPECT_LE(taken, 2500ms);
  EXPECT_EQ(recording.take(sent.size()), sent);
}

TEST_F(PulseAudioTest, LosesNothingWhereTheCallerPauses) {
  test::SoundRecording recording;
  const int handle = ms_openAudPlayback(2);
  ASSERT_NE(handle, 0);
  for (std::int16_t part = 1; part <= 3; ++part) {
    // Not a whole number of steps.
    const Samples sent(4801, part);
    EXPECT_EQ(send(handle, sent), 9602);
    EXPECT_EQ(recording.take(sent.size()), sent);
    // The device has run dry.
    recording.awaitSilence(4800);
  }
  EXPECT_EQ(ms_closeAudPlayback(handle), 0);
}

TEST_F(PulseAudioTest, GivesUpAServerThatHangsOrDiedAndFindsItAgain) {
  for (const int fault : {SIGSTOP, SIGKILL}) {
    SCOPED_TRACE(strsignal(fault));
    const int handle = openInTime();
    ASSERT_NE(handle, 0);
    EXPECT_EQ(send(handle, Samples(4800, 1)), 9600);
    server->signal(fault);
    EXPECT_LT(timed([&] { EXPECT_LT(sendUntilFailure(handle), 0); }), kGivenUp);
    EXPECT_LT(timed([&] { EXPECT_LT(sendUntilFailure(handle), 0); }), kAtOnce);
    EXPECT_LT(timed([&] { ms_closeAudPlayback(handle); }), kGivenUp);
    EXPECT_LT(timed([&] { EXPECT_EQ(ms_openAudPlayback(2), 0); }), kGivenUp);
    EXPECT_LT(timed([&] { EXPECT_EQ(ms_openAudPlayback(2), 0); }), kAtOnce);
    fault == SIGSTOP ? server->signal(SIGCONT) : startServer();
    const int again = openInTime();
    EXPECT_NE(again, 0);
    EXPECT_EQ(send(again, Samples(4800, 1)), 9600);
    EXPECT_EQ(ms_closeAudPlayback(again), 0);
  }
}

}  // namespace
