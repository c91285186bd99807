#include "playback/write_tts_thread.h"

#include <sys/stat.h>

#include <cstdio>
#include <numeric>
#include <string>

#include <gtest/gtest.h>

#include "dsp/pfir.h"
#include "support/fake_clock.h"
#include "support/fakes.h"
#include "support/link_seams.h"
#include "support/scratch_folder.h"
#include "support/syslog_capture.h"

namespace {

using namespace std::chrono_literals;
using qs_ns::kFrameSamples;
using qs_ns::QS_StreamData;
using qs_ns::QS_WriteTTSThread;
using qs_ns::RequestOutcome;

using Samples = std::vector<std::int16_t>;

// A sample of 1024 comes out as the gain itself.
constexpr std::int16_t kShowsGain = 1024;

class Writer : public testing::Test {
 protected:
  explicit Writer(std::int32_t flags = 0)
      : request(test::makeRequest({"text"}, flags, alert.c_str())) {}

  void SetUp() override { test::clearLog(); }

  void add(std::size_t count, std::int16_t value = kShowsGain) {
    auto block = std::make_unique<QS_StreamData>();
    block->samples = std::make_unique<std::int16_t[]>(count);
    std::fill_n(block->samples.get(), count, value);
    block->count = static_cast<std::int32_t>(count);
    queue.add(std::move(block));
  }

  /// Runs the writer over what is queued, to its end.
  void runToEnd() {
    queue.markExhausted();
    ASSERT_EQ(writer.start(), 0);
    writer.join();
  }

  void decideStopped() {
    const platform::MutexLock hold(outcome.lock);
    outcome.result = RequestOutcome::Result::stopped;
    writer.stop();
  }

  test::ScratchFolder folder;
  const std::string alert = folder / "alert.raw";
  test::FakeController controller;
  qs_ns::SampleQueue queue;
  std::unique_ptr<qs_ns::QS_PlayRequest> request;
  RequestOutcome outcome;
  QS_WriteTTSThread writer{&controller, queue, request.get(), outcome};
};

TEST_F(Writer, CutsBlocksOfAnySizeIntoFramesAndFadesTheRestOut) {
  add(100);
  add(100);
  add(0);
  add(1000);
  runToEnd();
  const auto frames = controller.media.frames();
  ASSERT_EQ(frames.size(), 8U) << "seven full ones of 1200 samples and the faded 80";
  EXPECT_EQ(frames[0][0], 0);
  EXPECT_EQ(frames[0][1], 50);
  EXPECT_EQ(frames[6], Samples(kFrameSamples, 502));
  EXPECT_EQ(frames[7][0], 502);
  EXPECT_LT(frames[7][79], 10);
  EXPECT_EQ(Samples(frames[7].begin() + 80, frames[7].end()), Samples(80, 0));
  EXPECT_EQ(controller.reports(),
            (std::vector<test::FakeController::Report>{{request->handle, 0}}));
  EXPECT_EQ(test::countLog("threadLoop get 0 data from queue"), 1);
}

TEST_F(Writer, SendsNothingMoreWhereTheLastFrameWasFull) {
  add(320);
  runToEnd();
  EXPECT_EQ(controller.media.frames().size(), 2U);
  EXPECT_EQ(controller.reported.value(), 1);
}

TEST_F(Writer, LetsOneFadedFrameOutWhenStoppedInTheMiddleOfABlock) {
  controller.media.onFrame = [&](int frame) {
    if (frame == 2) decideStopped();
  };
  add(1600);
  add(1600);
  runToEnd();
  const auto frames = controller.media.frames();
  ASSERT_EQ(frames.size(), 3U);
  EXPECT_EQ(frames[1], Samples(kFrameSamples, 502));
  EXPECT_EQ(frames[2][0], 502);
  EXPECT_EQ(frames[2][kFrameSamples - 1], 0);
  EXPECT_EQ(controller.reported.value(), 0) << "the streaming side reports a stop";
}

TEST_F(Writer, SendsNothingWhenStoppedBeforeItBegins) {
  decideStopped();
  add(1600);
  runToEnd();
  EXPECT_TRUE(controller.media.frames().empty());
  EXPECT_EQ(test::countLog("WriteTTSThread stopped before handling queue"), 1);
  EXPECT_EQ(controller.reported.value(), 0);
}

TEST_F(Writer, PlaysNothingOfWhatWakesItAfterAStop) {
  for (const bool exhausted : {false, true}) {
    SCOPED_TRACE(exhausted);
    RequestOutcome decided;
    QS_WriteTTSThread stoppedOne(&controller, queue, request.get(), decided);
    add(80);
    const int waits = test::waitsBegun().value();
    ASSERT_EQ(stoppedOne.start(), 0);
    test::waitsBegun().await(waits + 1);
    {
      const platform::MutexLock hold(decided.lock);
      decided.result = RequestOutcome::Result::stopped;
      stoppedOne.stop();
    }
    exhausted ? queue.markExhausted() : add(1600);
    stoppedOne.join();
    EXPECT_TRUE(controller.media.frames().empty());
  }
  EXPECT_EQ(controller.reported.value(), 0);
}

TEST_F(Writer, FeedsSilenceWhileTheNextTextIsAwaitedAndLosesNothingOfTheLastOne) {
  test::FakeClock clock;
  writer.setSendSilence(true);
  add(200);
  ASSERT_EQ(writer.start(), 0);
  clock.advanceToNextDeadline();
  controller.media.frameCount.await(2);
  clock.advanceToNextDeadline();
  controller.media.frameCount.await(3);
  // Still in silence mode: queued and exhausted in one go, as after the last text.
  add(160);
  queue.markExhausted();
  writer.join();
  const auto frames = controller.media.frames();
  ASSERT_EQ(frames.size(), 5U);
  EXPECT_EQ(frames[1][0], 502) << "the pending samples fade out";
  EXPECT_EQ(frames[1][kFrameSamples - 1], 0);
  EXPECT_EQ(frames[2], Samples(kFrameSamples, 0));
  EXPECT_EQ(frames[3][1], 50) << "the next text fades in again";
  EXPECT_EQ(frames[4], Samples(kFrameSamples, 0));
  EXPECT_EQ(controller.reported.value(), 1);
}

TEST_F(Writer, StartsEveryRequestFromASilentFilter) {
  pfir_upFilterState filter{};
  ASSERT_EQ(pfir_initUpFilter(&filter, pfir_getUpFilterConfig(3)), 0);
  controller.filter = &filter;
  const Samples loud(kFrameSamples, 20000);
  Samples out(480);
  ASSERT_EQ(pfir_upFilter(&filter, loud.data(), out.data(), kFrameSamples, nullptr), 0);
  add(kFrameSamples, 0);
  runToEnd();
  EXPECT_EQ(controller.media.samples(), Samples(480, 0))
      << "the request before clicks into this one";
  pfir_releaseUpFilter(&filter);
}

class AlertWriter : public Writer {
 protected:
  AlertWriter() : Writer(qs_ns::kPlayAlertAfterTexts) {}

  void writeAlert(std::size_t samples) {
    const Samples sound(samples, kShowsGain);
    std::FILE* file = std::fopen(alert.c_str(), "wb");
    std::fwrite(sound.data(), 2, sound.size(), file);
    std::fclose(file);
  }
};

TEST_F(AlertWriter, PlaysTheFileAtTheVolumeInForceAndPadsTheLastFrame) {
  writeAlert(1000);
  for (int i = 0; i < 3; ++i)
    add(kFrameSamples);
  controller.media.onFrame = [&](int frame) {
    if (frame == 2) controller.media.volume = 300;
  };
  runToEnd();
  const auto frames = controller.media.frames();
  ASSERT_EQ(frames.size(), 3U + 7U);
  EXPECT_EQ(frames[2], Samples(kFrameSamples, 502)) << "the text keeps the volume of its start";
  EXPECT_EQ(frames[3], Samples(kFrameSamples, 300)) << "no ramp";
  EXPECT_EQ(std::accumulate(frames[9].begin(), frames[9].end(), 0), 40 * 300);
  EXPECT_EQ(controller.reported.value(), 1);
}

TEST_F(AlertWriter, SeesTheEndOfAFileOfWholeFramesOneFrameLate) {
  writeAlert(320);
  runToEnd();
  const auto frames = controller.media.frames();
  ASSERT_EQ(frames.size(), 3U);
  EXPECT_EQ(frames[2], Samples(kFrameSamples, 0));
}

TEST_F(AlertWriter, GoesOnWithoutAFileThatCannotBePlayed) {
  ASSERT_EQ(mkfifo(alert.c_str(), 0600), 0) << "a pipe without a writer blocks whoever opens it";
  runToEnd();
  EXPECT_TRUE(controller.media.frames().empty());
  EXPECT_EQ(controller.reported.value(), 1);
}

TEST_F(AlertWriter, ReportsNothingWhenStoppedDuringTheAlert) {
  writeAlert(16000);
  controller.media.onFrame = [&](int frame) {
    if (frame == 3) decideStopped();
  };
  runToEnd();
  EXPECT_EQ(controller.media.frames().size(), 3U);
  EXPECT_EQ(controller.reported.value(), 0);
}

}  // namespace
