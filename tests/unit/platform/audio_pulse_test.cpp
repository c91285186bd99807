// The media server's functions over a real sound server: what is heard, and what happens when the
// server hangs or dies. Real time.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/media_server.h"
#include "platform/unique_fd.h"
#include "support/child_process.h"
#include "support/scratch_folder.h"

#if defined(__SANITIZE_THREAD__)
// libpulse is not instrumented: its threads hand memory to each other through atomics of its own,
// which cannot be seen, and what they read into it (pa_iochannel_read) then looks like a race.
extern "C" const char* __tsan_default_suppressions() {
  return "race:libpulsecommon-\n";
}
#endif

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Samples = std::vector<std::int16_t>;

class SoundServer {
 public:
  explicit SoundServer(const test::ScratchFolder& folder)
      : socketPath(folder / "pa.sock"),
        // It goes with the test also where that ends by a crash.
        process("/usr/bin/setpriv",
                {"--pdeathsig", "KILL", "/usr/bin/pulseaudio", "-n", "--daemonize=no",
                 "--use-pid-file=no", "--exit-idle-time=-1", "--disallow-exit=yes", "--realtime=no",
                 "--high-priority=no", "--log-target=newfile:" + folder / "pulseaudio.log", "-L",
                 "module-native-protocol-unix auth-anonymous=1 socket=" + socketPath, "-L",
                 "module-null-sink sink_name=nul rate=48000 channels=1 format=s16le norewinds=1"}) {
    awaitSocket();
  }

  pid_t id() const { return process.id(); }
  void signal(int number) const { kill(id(), number); }

 private:
  void awaitSocket() const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    const auto deadline = Clock::now() + 10s;
    for (;;) {
      const platform::UniqueFd attempt(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
      if (connect(attempt.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
        return;
      ASSERT_LT(Clock::now(), deadline) << "the sound server did not start";
      std::this_thread::yield();
    }
  }

  const std::string socketPath;
  test::ChildProcess process;
};

/// What the sound server plays, from construction on.
class Recording {
 public:
  Recording()
      : pipe(popen("exec parec -d nul.monitor --format=s16le --rate=48000 --channels=1"
                   " --latency-msec=20 --raw 2>/dev/null",
                   "r")) {
    next();
  }
  ~Recording() { pclose(pipe); }
  Recording(const Recording&) = delete;
  Recording& operator=(const Recording&) = delete;

  std::int16_t next() {
    std::int16_t sample = 0;
    EXPECT_EQ(std::fread(&sample, sizeof sample, 1, pipe), 1U);
    return sample;
  }

  /// The next `frames` samples that are no silence, with what silence there is between them on a
  /// busy machine left out. Stops after 10 s of it.
  Samples take(std::size_t frames) {
    Samples samples;
    for (int silent = 0; samples.size() < frames && silent < 480000;) {
      const std::int16_t sample = next();
      if (sample != 0) samples.push_back(sample);
      silent = sample == 0 ? silent + 1 : 0;
    }
    return samples;
  }

  /// Until `frames` samples in a row were silent, or 10 s of sound have come.
  void awaitSilence(int frames) {
    int silent = 0;
    for (int i = 0; i < 480000 && silent < frames; ++i)
      silent = next() == 0 ? silent + 1 : 0;
    EXPECT_EQ(silent, frames);
  }

 private:
  FILE* pipe;
};

int send(int handle, const Samples& samples) {
  return ms_sendDataToAudPlayback(handle, samples.data(),
                                  static_cast<unsigned int>(2 * samples.size()));
}

class PulseAudioTest : public testing::Test {
 protected:
  void SetUp() override {
    setenv("XDG_RUNTIME_DIR", folder.path().c_str(), 1);
    setenv("HOME", folder.path().c_str(), 1);
    setenv("PULSE_SERVER", ("unix:" + folder / "pa.sock").c_str(), 1);
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
    server = std::make_unique<SoundServer>(folder);
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
  std::unique_ptr<SoundServer> server;
};

// A call that gives up after a second, on a machine that has other things to do.
constexpr auto kGivenUp = 2s;
constexpr auto kAtOnce = 500ms;

TEST_F(PulseAudioTest, HearsExactlyWhatWasSentInTheTimeOfTheSound) {
  Recording recording;
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
  Recording recording;
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
