#include "cache/builder_line.h"

#include <syslog.h>

#include <cerrno>
#include <thread>

#include "cache_fixture.h"

namespace test {
namespace {

const char* const kListDone = "Number of phrases in cache:51";

TEST(BuilderLine, NeverHasMoreThanTwoThreadsHoweverOftenItIsRestarted) {
  constexpr int kRestarts = 1000;
  Scene scene;
  scene.blockFirstSynthesis();
  EXPECT_EQ(scene.controller.restart(), 0);
  scene.gate.awaitArrival();
  for (int i = 0; i < kRestarts; ++i)
    ASSERT_EQ(scene.controller.restart(), 0);
  EXPECT_EQ(liveThreads(), 2);
  // All but the one that builds, the one that waits for it and the newest are gone.
  EXPECT_EQ(scene.controller.reports, kRestarts + 1 - 3);
  scene.gate.open();
  ASSERT_TRUE(waitForLog(kListDone));
  // The first one's blocked phrase, then the newest one's; the others synthesised nothing.
  EXPECT_EQ(scene.speech.texts().size(), 52U);
  EXPECT_EQ(threadPeak(), 2);
}

TEST(BuilderLine, JoinsEveryBuilderInWhateverStateTheLineIs) {
  struct {
    const char* name;
    int builders;
    bool done;  // is the first one's list done?
  } const rows[] = {{"no builder", 0, false},         {"list done", 1, true},
                    {"building", 1, false},           {"with a successor", 2, false},
                    {"with a replacement", 3, false}, {"after a list that is done", 3, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Scene scene;
    if (!row.done) scene.blockFirstSynthesis();
    for (int i = 0; i < row.builders; ++i) {
      scene.controller.restart();
      if (i == 0 && row.done) {
        EXPECT_TRUE(waitForLog(kListDone));
      } else if (i == 0) {
        scene.gate.awaitArrival();
      }
    }
    std::thread cleaner([&] { scene.controller.cleanUp(); });
    scene.gate.open();
    cleaner.join();
    EXPECT_EQ(liveThreads(), 0);
    EXPECT_EQ(scene.controller.reports, row.builders);
    EXPECT_EQ(scene.controller.restart(), -ECANCELED);
    EXPECT_EQ(liveThreads(), 0);
  }
}

TEST(BuilderLine, GoesOnPastABuilderForWhichThereIsNoThread) {
  // Of three threads that are started with the first builder blocked: the one that builds, its
  // successor, and the replacement, which is started by the successor.
  for (const int failing : {1, 2, 3}) {
    SCOPED_TRACE(failing);
    Scene scene;
    scene.blockFirstSynthesis();
    failThread(failing);
    for (const int creation : {1, 2, 3}) {
      EXPECT_EQ(scene.controller.restart(), creation == failing && failing < 3 ? -EAGAIN : 0);
      if (creation == (failing == 1 ? 2 : 1)) scene.gate.awaitArrival();
      if (creation == 3) scene.gate.open();
      if (creation == failing) {
        EXPECT_TRUE(waitForLog("QS_CT:runThread: no thread for the phrase cache"));
        EXPECT_TRUE(scene.controller.builder()->addDynamicCacheEntry("Ada", makeWave(10, 1)));
      }
    }
    EXPECT_EQ(scene.controller.restart(), 0);
    EXPECT_TRUE(waitForLog(kListDone));
    EXPECT_EQ(countLog("no thread for the phrase cache", LOG_ERR), 1);
    EXPECT_LE(threadPeak(), 2);
  }
}

TEST(BuilderLine, KeepsABuilderThatIsDoneAsTheWayToTheDynamicCache) {
  Scene scene;
  scene.controller.restart();
  ASSERT_TRUE(waitForLog(kListDone));
  const auto builder = scene.controller.getCacheThread();
  EXPECT_FALSE(builder->isStopped());
  EXPECT_TRUE(builder->addDynamicCacheEntry("Ada", makeWave(10, 1)));
  EXPECT_EQ(scene.controller.reports, 0);
}

}  // namespace
}  // namespace test
