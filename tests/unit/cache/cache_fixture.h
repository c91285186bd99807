#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "cache/builder_line.h"
#include "cache/cache_thread.h"
#include "cache/dynamic_phrase_cache.h"
#include "cache/static_phrase_cache.h"
#include "fake_speech.h"
#include "support/fakes.h"
#include "support/link_seams.h"
#include "support/syslog_capture.h"

namespace test {

/// A controller with nothing but its care for the builders.
class BuilderOwner final : public FakeController {
 public:
  /// The answer to the n-th question (from 0) whether the play queue is busy.
  std::function<bool(int call)> busy = [](int) { return false; };
  std::atomic<int> builders{0};
  std::atomic<int> ended{0};
  qs_ns::BuilderLine line;

  /// A builder that the test drives itself.
  std::shared_ptr<qs_ns::QS_CacheThread> makeBuilder(bool featureOff = false) {
    ++builders;
    return std::make_shared<qs_ns::QS_CacheThread>(this, featureOff, line);
  }

  /// Replaces and starts the builder as a reload does; `runThread`'s status.
  int restart(bool featureOff = false) {
    std::shared_ptr<qs_ns::QS_CacheThreadBase> old;
    const platform::MutexLock lock(cacheThreadMutex);
    if (cache != nullptr) cache->stopThread();
    old = std::exchange(cache, makeBuilder(featureOff));
    cache->clearDynamicPhraseCache();
    const int status = cache->runThread();
    EXPECT_LE(liveThreads(), 2);
    return status;
  }

  std::shared_ptr<qs_ns::QS_CacheThreadBase> builder() {
    const platform::MutexLock lock(cacheThreadMutex);
    return cache;
  }

  void cleanUp() {
    if (const auto last = builder()) last->stopThread();
    line.joinAll();
    std::shared_ptr<qs_ns::QS_CacheThreadBase> dropped;
    const platform::MutexLock lock(cacheThreadMutex);
    dropped = std::move(cache);
  }

  bool isMessageQueueBusy() override { return busy(busyCalls++); }

  /// Ends the test where a builder dies under one of the locks.
  void reportCachingComplete(const qs_ns::QS_CacheThreadBase* builder) override {
    for (platform::Mutex* taken :
         {&cacheThreadMutex, &qs_ns::cacheMutex, &qs_ns::dynamicCacheMutex}) {
      taken->lock();
      taken->unlock();
    }
    // Takes the line's lock; it is nobody's turn.
    line.takeTurn(*static_cast<const qs_ns::QS_CacheThread*>(builder));
    ++ended;
  }

 private:
  std::atomic<int> busyCalls{0};
  platform::Mutex cacheThreadMutex{true};
};

/// A speech engine and a controller for one run of builders, of which nothing is left at the end.
struct Scene {
  Scene() {
    clearLog();
    qs_ns::dynamic_cache::clear();
  }
  ~Scene() {
    gate.open();
    controller.cleanUp();
    EXPECT_EQ(liveThreads(), 0);
    EXPECT_EQ(controller.ended, controller.builders);
  }
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;

  /// Lets each synthesis wait in its middle until `gate` opens, deaf to every stop. (The very first
  /// one may be stopped before it gets there.)
  void blockFirstSynthesis() {
    speech.at = [this](int, Stage stage) {
      if (stage == Stage::middle) gate.pass();
    };
  }

  FakeSpeech speech;
  BuilderOwner controller;
  Gate gate;
};

inline int phraseCount() {
  const platform::MutexLock lock(qs_ns::cacheMutex);
  return qs_ns::static_cache::size();
}

}  // namespace test
