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
#include "core/interfaces/controller_base.h"
#include "fake_speech.h"
#include "support/gate.h"
#include "support/link_seams.h"
#include "support/syslog_capture.h"

namespace test {

/// A controller with nothing but its care for the builders.
class FakeController final : public qs_ns::QS_ControllerBase {
 public:
  /// The answer to the n-th question (from 0) whether the play queue is busy.
  std::function<bool(int call)> busy = [](int) { return false; };
  std::atomic<int> builders{0};
  std::atomic<int> reports{0};

  /// Replaces and starts the builder as a reload does; `runThread`'s status.
  int restart(bool featureOff = false) {
    std::shared_ptr<qs_ns::QS_CacheThread> old;
    const platform::MutexLock lock(cacheThreadMutex);
    if (held != nullptr) held->stopThread();
    old = std::exchange(held, std::make_shared<qs_ns::QS_CacheThread>(this, featureOff, line));
    ++builders;
    held->clearDynamicPhraseCache();
    return held->runThread();
  }

  std::shared_ptr<qs_ns::QS_CacheThread> builder() {
    const platform::MutexLock lock(cacheThreadMutex);
    return held;
  }

  void cleanUp() {
    if (const auto last = builder()) last->stopThread();
    line.joinAll();
    std::shared_ptr<qs_ns::QS_CacheThread> dropped;
    const platform::MutexLock lock(cacheThreadMutex);
    dropped = std::move(held);
  }

  bool isMessageQueueBusy() override { return busy(busyCalls++); }

  /// Ends the test where a builder dies under one of the locks.
  void reportCachingComplete(const qs_ns::QS_CacheThreadBase* builder) override {
    const auto* thread =
        static_cast<const platform::Thread*>(static_cast<const qs_ns::QS_CacheThread*>(builder));
    EXPECT_NE(threadArgument(), thread) << "a builder died on its own thread";
    for (platform::Mutex* mutex :
         {&cacheThreadMutex, &qs_ns::cacheMutex, &qs_ns::dynamicCacheMutex}) {
      mutex->lock();
      mutex->unlock();
    }
    line.takeTurn(*thread);  // takes the line's lock; it is nobody's turn
    ++reports;
  }

  qs_ns::QS_MediaInterfaceBase* getMediaIF() override { return nullptr; }
  std::shared_ptr<qs_ns::QS_CacheThreadBase> getCacheThread() override { return builder(); }
  pfir_upFilterState* getFirUpState() override { return nullptr; }
  void setState(int) override {}
  void reportPlayRequestResult(const qs_ns::QS_PlayRequest*, int) override {}
  bool isCacheEnabled() override { return true; }
  int startMsAudPlayback() override { return 0; }
  void restartCaching(bool) override {}

  qs_ns::BuilderLine line;

 private:
  std::atomic<int> busyCalls{0};
  platform::Mutex cacheThreadMutex{true};
  std::shared_ptr<qs_ns::QS_CacheThread> held GUARDED_BY(cacheThreadMutex);
};

/// A speech engine and a controller for one run of builders, of which nothing is left at the end:
/// no thread, builder or wave.
struct Scene {
  Scene() {
    clearLog();
    resetThreadPeak();
    qs_ns::dynamic_cache::clear();
  }
  ~Scene() {
    gate.open();
    controller.cleanUp();
    EXPECT_EQ(liveThreads(), 0);
    EXPECT_EQ(liveWaves(), 0);
    EXPECT_EQ(controller.reports, controller.builders);
  }
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;

  /// Lets the first synthesis wait in its middle until `gate` opens, deaf to every stop.
  void blockFirstSynthesis() {
    speech.at = [this](int synthesis, Stage stage) {
      if (synthesis == 0 && stage == Stage::middle) gate.pass();
    };
  }

  /// A builder that the test drives itself.
  std::shared_ptr<qs_ns::QS_CacheThread> makeBuilder() {
    ++controller.builders;
    return std::make_shared<qs_ns::QS_CacheThread>(&controller, false, controller.line);
  }

  FakeSpeech speech;
  FakeController controller;
  Gate gate;
};

inline qs_ns::PhraseSamples phrase(const std::string& text) {
  const platform::MutexLock lock(qs_ns::cacheMutex);
  return qs_ns::static_cache::find(text);
}

inline int phraseCount() {
  const platform::MutexLock lock(qs_ns::cacheMutex);
  return qs_ns::static_cache::size();
}

}  // namespace test
