#include "playback/write_tts_thread.h"

#include <cstdlib>
#include <new>

#include <gtest/gtest.h>

#include "support/fake_clock.h"
#include "support/fakes.h"
#include "support/link_seams.h"
#include "support/syslog_capture.h"

namespace {

using namespace std::chrono_literals;
using qs_ns::kFrameSamples;
using Samples = std::vector<std::int16_t>;

class Writer : public testing::Test {
 protected:
  void add(std::size_t count) {
    auto block = std::make_unique<qs_ns::QS_StreamData>();
    block->samples = std::make_unique<std::int16_t[]>(count);
    // A sample of 1024 comes out as the gain itself.
    std::fill_n(block->samples.get(), count, std::int16_t{1024});
    block->count = static_cast<std::int32_t>(count);
    queue.add(std::move(block));
  }

  test::FakeController controller;
  qs_ns::SampleQueue queue;
  std::unique_ptr<qs_ns::QS_PlayRequest> request = test::makeRequest({"text"});
  qs_ns::RequestOutcome outcome;
};

TEST_F(Writer, PlaysNothingOfWhatWakesItAfterAStop) {
  for (const bool exhausted : {false, true}) {
    SCOPED_TRACE(exhausted);
    qs_ns::QS_WriteTTSThread writer(&controller, queue, request.get(), outcome);
    add(80);
    const int waits = test::waitsBegun().value();
    ASSERT_EQ(writer.start(), 0);
    test::waitsBegun().await(waits + 1);
    {
      const platform::MutexLock hold(outcome.lock);
      writer.stop();
    }
    exhausted ? queue.markExhausted() : add(1600);
    writer.join();
    EXPECT_TRUE(controller.media.frames.empty());
  }
  EXPECT_TRUE(controller.reports.empty()) << "the streaming side reports a stop";
}

TEST_F(Writer, ReportsNothingWhereAStopComesJustBeforeItDecides) {
  qs_ns::QS_WriteTTSThread writer(&controller, queue, request.get(), outcome);
  add(kFrameSamples);
  queue.markExhausted();
  test::beforeNextLock(&outcome.lock, [&] {
    const platform::MutexLock hold(outcome.lock);
    outcome.result = qs_ns::RequestOutcome::Result::stopped;
  });
  ASSERT_EQ(writer.start(), 0);
  writer.join();
  EXPECT_FALSE(controller.media.frames.empty());
  EXPECT_TRUE(controller.reports.empty());
}

TEST_F(Writer, FeedsSilenceWhileTheNextTextIsAwaitedAndLosesNothingOfTheLastOne) {
  test::FakeClock clock;
  qs_ns::QS_WriteTTSThread writer(&controller, queue, request.get(), outcome);
  writer.setSendSilence(true);
  for (const std::size_t count : {100U, 0U, 100U})
    add(count);
  ASSERT_EQ(writer.start(), 0);
  EXPECT_EQ(clock.advanceToNextDeadline(), 10ms);
  controller.media.frameCount.await(2);
  clock.advanceToNextDeadline();
  controller.media.frameCount.await(3);
  // Still in silence mode: queued and exhausted in one go, as after the last text.
  add(160);
  queue.markExhausted();
  writer.join();
  const auto frames = controller.media.frames;
  ASSERT_EQ(frames.size(), 5U);
  EXPECT_EQ(frames[1][0], 502) << "the pending samples fade out";
  EXPECT_EQ(frames[1][kFrameSamples - 1], 0);
  EXPECT_EQ(frames[2], Samples(kFrameSamples, 0));
  EXPECT_EQ(frames[3][1], 50) << "the next text fades in again";
  EXPECT_EQ(frames[4], Samples(kFrameSamples, 0));
  EXPECT_EQ(controller.reports.size(), 1U);
}

thread_local int allocations = 0;

/// What the calling thread has done that the sound path must not do.
struct Cost {
  int logged = test::countLog("");
  int allocated = allocations;
  int locks = test::locksTaken();
};

constexpr int kWatchedBlocks = 200;
// Such as Flite makes them, of no whole number of frames.
constexpr int kWatchedSamples = 400;
constexpr int kWatchedFrames = kWatchedBlocks * kWatchedSamples / kFrameSamples;

class WatchedMedia final : public test::FakeMedia {
 public:
  int playDataMsAudPlaybackSession(const void*, unsigned bytes) override {
    if (++played == 1) first = Cost();
    if (played == kWatchedFrames) last = Cost();
    return static_cast<int>(bytes);
  }
  int played = 0;
  Cost first;
  Cost last;
};

class WatchedController final : public test::FakeController {
 public:
  WatchedMedia watched;
  qs_ns::QS_MediaInterfaceBase* getMediaIF() override { return &watched; }
};

TEST_F(Writer, NeitherAllocatesNorLogsNorLocksAnythingButItsQueueFromItsFirstFrameToTheLast) {
  WatchedController watching;
  pfir_upFilterState filter{};
  ASSERT_EQ(pfir_initUpFilter(&filter, pfir_getUpFilterConfig(3)), 0);
  watching.filter = &filter;
  for (int blocks = 0; blocks < kWatchedBlocks; ++blocks)
    add(kWatchedSamples);
  queue.markExhausted();
  qs_ns::QS_WriteTTSThread writer(&watching, queue, request.get(), outcome);
  ASSERT_EQ(writer.start(), 0);
  writer.join();
  const WatchedMedia& media = watching.watched;
  EXPECT_EQ(media.played, kWatchedFrames);
  EXPECT_EQ(media.last.allocated - media.first.allocated, 0);
  EXPECT_EQ(media.last.logged - media.first.logged, 0);
  EXPECT_LE(media.last.locks - media.first.locks, kWatchedBlocks);
  pfir_releaseUpFilter(&filter);
}

}  // namespace

// Never inlined, or the compiler sees memory that comes from one function and goes to another.
// NOLINTBEGIN(cppcoreguidelines-no-malloc, cppcoreguidelines-owning-memory, hicpp-no-malloc): what
// these functions are.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++allocations;
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc, cppcoreguidelines-owning-memory, hicpp-no-malloc)
