// The media server's functions over a recording, and the line that they share.

#include <syslog.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "audio_samples.h"
#include "platform/audio/line.h"
#include "platform/media_server.h"
#include "support/background.h"
#include "support/fake_clock.h"
#include "support/file_size_limit.h"
#include "support/gate.h"
#include "support/scratch_folder.h"
#include "support/syslog_capture.h"

namespace {

using namespace std::chrono_literals;
using platform::audio::Line;
using platform::audio::Output;
using test::Samples;

/// An output that fails and blocks as a test says.
struct TestOutput final : Output {
  int open(std::string&) override {
    if (openGate != nullptr) openGate->pass();
    return 0;
  }
  int write(const std::int16_t*, std::size_t frames) override {
    if (gate != nullptr) gate->pass();
    ++writes;
    EXPECT_LE(frames, 480U) << "more than 10 ms at a time";
    return writeStatus;
  }
  int close() override {
    ++closes;
    return 0;
  }

  std::atomic<int> writeStatus{0};
  int writes = 0;
  int closes = 0;
  test::Gate* gate = nullptr;
  test::Gate* openGate = nullptr;
};

struct LineTest : testing::Test {
  std::unique_ptr<TestOutput> owned = std::make_unique<TestOutput>();
  TestOutput& output = *owned;
  Line line{"test", std::move(owned)};
  const Samples second = Samples(48000);
};

TEST_F(LineTest, StaysDeadAfterAFailedWriteUntilItIsOpenedAgain) {
  const int handle = line.open();
  output.writeStatus = -EIO;
  EXPECT_EQ(line.write(handle, second.data(), second.size()), -EIO);
  output.writeStatus = 0;
  EXPECT_EQ(line.write(handle, second.data(), second.size()), -EIO);
  EXPECT_EQ(output.writes, 1) << "a dead stream's output must be left alone";
  EXPECT_EQ(line.close(handle), 0);
  const int next = line.open();
  EXPECT_EQ(line.write(next, second.data(), 1), 0);
}

TEST_F(LineTest, IsClosedUnderAWriteOfAnotherThread) {
  test::Gate gate;
  output.gate = &gate;
  const int handle = line.open();
  test::Background written([&] { return line.write(handle, second.data(), second.size()); });
  gate.awaitArrival();
  test::Background closed([&] { line.closeAny(); });
  // The close is under way as soon as the handle is no longer good.
  while (line.write(handle, second.data(), 1) != -EBADF)
    std::this_thread::yield();
  EXPECT_EQ(output.closes, 0) << "closed while a call was in the output";
  gate.open();
  EXPECT_EQ(written.get(), -EBADF);
  closed.get();
  EXPECT_EQ(output.writes, 1);
  EXPECT_EQ(output.closes, 1);
}

TEST_F(LineTest, IsClosedAsSoonAsAnotherThreadHasOpenedIt) {
  test::Gate gate;
  output.openGate = &gate;
  test::Background opened([&] { return line.open(); });
  gate.awaitArrival();
  test::Background closed([&] { line.closeAny(); });
  EXPECT_FALSE(closed.endsWithoutSleep());
  gate.open();
  const int handle = opened.get();
  closed.get();
  EXPECT_EQ(output.closes, 1);
  EXPECT_EQ(line.write(handle, second.data(), 1), -EBADF);
}

class MediaServerTest : public testing::Test {
 protected:
  void SetUp() override {
    test::clearLog();
    start("wav:" + file);
  }
  void TearDown() override {
    letTimePass([] { return ms_stop(); });
    unsetenv("QUILLSPEAK_AUDIO");
  }

  static void start(const std::string& value) {
    setenv("QUILLSPEAK_AUDIO", value.c_str(), 1);
    EXPECT_EQ(ms_start(), 0);
  }

  /// Runs what blocks for as long as its sound takes.
  template <typename Function>
  int letTimePass(Function function) {
    test::Background result(function);
    while (!result.hasEnded()) {
      clock.advance(10ms);
      std::this_thread::yield();
    }
    return result.get();
  }

  int play(int handle, const Samples& samples) {
    return letTimePass([&] {
      const auto bytes = static_cast<unsigned int>(2 * samples.size());
      return ms_sendDataToAudPlayback(handle, samples.data(), bytes);
    });
  }

  Samples recorded() const { return test::samplesFrom(test::readFile(file), 44); }

  test::FakeClock clock;
  test::ScratchFolder folder;
  const std::string file = folder / "sound.wav";
};

TEST_F(MediaServerTest, PlaysSessionsInOrderAndReportsTheBytesTaken) {
  EXPECT_EQ(ms_openAudPlayback(1), 0) << "an unknown kind of stream";
  const int handle = ms_openAudPlayback(2);
  ASSERT_GT(handle, 0);
  EXPECT_EQ(ms_openAudPlayback(2), 0) << "a second stream";
  EXPECT_EQ(ms_setOutputAudioPath(7, 10), 0);
  const Samples first(5000, 11);
  EXPECT_EQ(play(handle, first), 10000);
  EXPECT_EQ(ms_sendDataToAudPlayback(handle, first.data(), 3), 2) << "half a frame is not taken";
  EXPECT_EQ(ms_sendDataToAudPlayback(handle, first.data(), 0), 0);
  EXPECT_LT(ms_sendDataToAudPlayback(handle, nullptr, 2), 0);
  EXPECT_LT(ms_sendDataToAudPlayback(handle + 1, first.data(), 2), 0);
  EXPECT_EQ(letTimePass([&] { return ms_closeAudPlayback(handle); }), 0);
  EXPECT_LT(ms_closeAudPlayback(handle), 0);
  EXPECT_LT(ms_sendDataToAudPlayback(handle, first.data(), 2), 0);
  EXPECT_EQ(recorded(), Samples(5001, 11));
}

TEST_F(MediaServerTest, GoesOnInTheSameRecordingAfterAStop) {
  const int handle = ms_openAudPlayback(2);
  EXPECT_EQ(play(handle, Samples(480, 1)), 960);
  // The stream is still open.
  EXPECT_EQ(letTimePass([] { return ms_stop(); }), 0);
  EXPECT_LT(ms_closeAudPlayback(handle), 0);
  EXPECT_EQ(ms_openAudPlayback(2), 0) << "open while stopped";
  EXPECT_LT(ms_startTone(ms_createToneSession(0), 1, 1), 0) << "a tone while stopped";
  EXPECT_EQ(ms_start(), 0);
  const int next = ms_openAudPlayback(2);
  ASSERT_GT(next, 0);
  EXPECT_EQ(play(next, Samples(480, 2)), 960);
  Samples expected(480, 1);
  expected.insert(expected.end(), 480, 2);
  EXPECT_EQ(recorded(), expected);
}

TEST_F(MediaServerTest, LogsOnceWhatIsValidAndOpensNothingWhereTheOutputIsNot) {
  for (const std::string& value : {std::string("alsa"), std::string("null:"), std::string("NULL"),
                                   std::string("auto "), std::string("wav:"), std::string("oss:x"),
                                   "wav:" + folder / "missing/a.wav", "wav:" + folder.path()}) {
    test::clearLog();
    start(value);
    EXPECT_EQ(ms_openAudPlayback(2), 0);
    EXPECT_EQ(ms_openAudPlayback(2), 0);
    EXPECT_LT(ms_startTone(ms_createToneSession(0), 1, 1), 0);
    EXPECT_EQ(test::logLines().size(), 1U) << value;
    for (const char* valid : {"alsa:PCM", "wav:FILE", "null", "auto"})
      EXPECT_EQ(test::countLog(valid, LOG_ERR), 1) << value;
  }
}

TEST_F(MediaServerTest, LetsAToneAndSpeechExcludeEachOther) {
  const int tone = ms_createToneSession(0);
  const int other = ms_createToneSession(0);
  EXPECT_NE(tone, other);
  const int speech = ms_openAudPlayback(2);
  EXPECT_LT(ms_startTone(tone, 1, 1), 0);
  letTimePass([=] { return ms_closeAudPlayback(speech); });
  EXPECT_EQ(ms_startTone(tone, 1, 1), 0);
  EXPECT_LT(ms_startTone(tone, 1, 1), 0);
  EXPECT_LT(ms_startTone(other, 1, 1), 0);
  EXPECT_EQ(ms_openAudPlayback(2), 0);
  // Closing the session stops its tone.
  EXPECT_EQ(letTimePass([=] { return ms_closeSession(tone); }), 0);
  EXPECT_EQ(ms_startTone(other, 1, 1), 0);
}

TEST_F(MediaServerTest, EndsAToneThatCannotBeHeardAndLetsSpeechTry) {
  const int tone = ms_createToneSession(0);
  {
    const test::FileSizeLimit full(44);
    EXPECT_EQ(ms_startTone(tone, 1, 1), 0);
    EXPECT_TRUE(test::waitForLog("audio: the tone ends, its output failed: File too large"));
  }
  EXPECT_GT(ms_openAudPlayback(2), 0);
}

TEST_F(MediaServerTest, RefusesUnknownTonesAndSessions) {
  const int session = ms_createToneSession(0);
  for (const int index : {-1, 35, 1000})
    EXPECT_LT(ms_startTone(session, index, 1), 0) << index;
  EXPECT_EQ(ms_stopSession(session), 0) << "a silent session may be stopped";
  EXPECT_EQ(ms_closeSession(session), 0);
  for (const int unknown : {session, -1, session + 1}) {
    EXPECT_LT(ms_realizeSession(unknown), 0);
    EXPECT_LT(ms_allocateSession(unknown), 0);
    EXPECT_LT(ms_startTone(unknown, 1, 1), 0);
    EXPECT_LT(ms_stopSession(unknown), 0);
    EXPECT_LT(ms_closeSession(unknown), 0);
  }
}

}  // namespace
