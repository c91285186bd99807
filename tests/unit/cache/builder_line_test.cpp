#include "cache/builder_line.h"

#include <syslog.h>

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
    EXPECT_TRUE(waitForLog("Number of phrases in cache:51"));
    EXPECT_EQ(countLog("no thread for the phrase cache", LOG_ERR), 1);
  }
}

}  // namespace
}  // namespace test
