#include "support/sound_server.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include <gtest/gtest.h>

#include "platform/unique_fd.h"

namespace test {

namespace {

std::string socketIn(const ScratchFolder& folder) {
  return folder / "pa.sock";
}

bool isServed(const std::string& path) {
  sockaddr_un address{AF_UNIX, {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const platform::UniqueFd attempt(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  return connect(attempt.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

void useSoundServer(const ScratchFolder& folder) {
  setenv("XDG_RUNTIME_DIR", folder.path().c_str(), 1);
  setenv("HOME", folder.path().c_str(), 1);
  setenv("PULSE_SERVER", ("unix:" + socketIn(folder)).c_str(), 1);
}

SoundServer::SoundServer(const ScratchFolder& folder)
    // It goes with the test also where that ends by a crash.
    : process("/usr/bin/setpriv",
              {"--pdeathsig", "KILL", "/usr/bin/pulseaudio", "-n", "--daemonize=no",
               "--use-pid-file=no", "--exit-idle-time=-1", "--disallow-exit=yes", "--realtime=no",
               "--high-priority=no", "--log-target=newfile:" + folder / "pulseaudio.log", "-L",
               "module-native-protocol-unix auth-anonymous=1 socket=" + socketIn(folder), "-L",
               "module-null-sink sink_name=nul rate=48000 channels=1 format=s16le norewinds=1"}) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!isServed(socketIn(folder)) && std::chrono::steady_clock::now() < deadline)
    std::this_thread::yield();
  EXPECT_TRUE(isServed(socketIn(folder))) << "the sound server did not start";
}

SoundRecording::SoundRecording()
    : pipe(popen("exec parec -d nul.monitor --format=s16le --rate=48000 --channels=1"
                 " --latency-msec=20 --raw 2>/dev/null",
                 "r")) {
  next();
}

SoundRecording::~SoundRecording() {
  pclose(pipe);
}

std::int16_t SoundRecording::next() {
  std::int16_t sample = 0;
  EXPECT_EQ(std::fread(&sample, sizeof sample, 1, pipe), 1U);
  return sample;
}

std::vector<std::int16_t> SoundRecording::take(std::size_t frames) {
  std::vector<std::int16_t> samples;
  for (int silent = 0; samples.size() < frames && silent < 480000;) {
    const std::int16_t sample = next();
    if (sample != 0) samples.push_back(sample);
    silent = sample == 0 ? silent + 1 : 0;
  }
  return samples;
}

void SoundRecording::awaitSilence(int frames) {
  int silent = 0;
  for (int i = 0; i < 480000 && silent < frames; ++i)
    silent = next() == 0 ? silent + 1 : 0;
  EXPECT_EQ(silent, frames);
}

}  // namespace test
