#include "cache/builder_line.h"

#include <cerrno>
#include <thread>

#include "cache_fixture.h"

namespace test {
namespace {

TEST(BuilderLine, JoinsEveryBuilderInWhateverStateTheLineIs) {
  // The one that builds, its successor, the replacement of that, and the replacement of this.
  for (const int builders : {0, 1, 2, 4}) {
    SCOPED_TRACE(builders);
    Scene scene;
    scene.blockFirstSynthesis();
    for (int i = 0; i < builders; ++i)
      scene.controller.restart();
    if (builders > 0) scene.gate.awaitArrival();
    std::thread cleaner([&] { scene.controller.cleanUp(); });
    scene.gate.open();
    cleaner.join();
    EXPECT_EQ(liveThreads(), 0);
    EXPECT_EQ(scene.controller.ended, builders);
    EXPECT_EQ(scene.controller.restart(), -ECANCELED);
  }
}

// The successor starts it and is the last to hold it, under a lock with which no builder may die.
TEST(BuilderLine, GoesOnPastAReplacementForWhichThereIsNoThread) {
  Scene scene;
  scene.blockFirstSynthesis();
  failThread(3);
  EXPECT_EQ(scene.controller.restart(), 0);
  scene.gate.awaitArrival();
  EXPECT_EQ(scene.controller.restart(), 0);
  EXPECT_EQ(scene.controller.restart(), 0);
  scene.controller.cache.reset();
  scene.gate.open();
  EXPECT_TRUE(waitForLog("QS_CT:runThread: no thread for the phrase cache"));
  EXPECT_EQ(scene.controller.restart(), 0);
  EXPECT_TRUE(waitForLog("Number of phrases in cache:51"));
}

}  // namespace
}  // namespace test
