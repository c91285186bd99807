#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "core/interfaces/cache_thread_base.h"
#include "core/interfaces/controller_base.h"
#include "core/interfaces/media_interface_base.h"
#include "core/interfaces/message_queue_base.h"
#include "dsp/pfir.h"
#include "playback/play_request.h"
#include "support/gate.h"

namespace test {

/// Takes sound as fast as it comes and keeps it; `onFrame` is called on the writer with the number
/// of each frame, from 1, before it is kept.
class FakeMedia : public qs_ns::QS_MediaInterfaceBase {
 public:
  std::function<void(int)> onFrame = [](int) {};
  bool starts = true;
  bool opens = true;
  int volume = 512;

  /// Not to be read while a writer runs.
  std::vector<std::vector<std::int16_t>> frames;

  std::vector<std::int16_t> samples() const {
    std::vector<std::int16_t> all;
    for (const auto& frame : frames)
      all.insert(all.end(), frame.begin(), frame.end());
    return all;
  }
  Tally frameCount;
  Tally drops;

  int cleanupMSInterface() override { return 0; }
  bool initializeMSInterface() override { return starts; }
  int setPathMsAudPlaybackSession() override { return 0; }
  int startMsAudPlaybackSession() override {
    if (session != 0) return 0;
    if (!opens) return -5;
    session = 7;
    return 0;
  }
  int stopMsAudPlaybackSession() override {
    session = 0;
    return 0;
  }
  int playDataMsAudPlaybackSession(const void* data, unsigned int bytes) override {
    onFrame(frameCount.value() + 1);
    const auto* first = static_cast<const std::int16_t*>(data);
    frames.emplace_back(first, first + bytes / sizeof(std::int16_t));
    frameCount.add();
    return static_cast<int>(bytes);
  }
  int getMsAudPlaybackSession() override { return session; }
  void setVolume(int level) override { volume = level; }
  int getVolume() override { return volume; }
  int startMsTone(int) override { return -1; }
  int stopMsTone(int) override { return -1; }
  int dropMsAudPlaybackSession() override {
    drops.add();
    return 0;
  }

 private:
  std::atomic<int> session{0};
};

/// A controller whose every call can be hooked.
class FakeController : public qs_ns::QS_ControllerBase {
 public:
  using Report = std::pair<std::uint64_t, int>;

  FakeMedia media;
  std::shared_ptr<qs_ns::QS_CacheThreadBase> cache;
  bool cacheEnabled = false;
  /// Null: the writer sends what it scaled, at the speech rate.
  pfir_upFilterState* filter = nullptr;
  std::function<void()> onSetState = [] {};
  std::function<void()> onStartPlayback = [] {};
  std::function<void(int)> onReport = [](int) {};
  Tally restarts;

  /// Not to be read while a request may be reported.
  std::vector<Report> reports;

  qs_ns::QS_MediaInterfaceBase* getMediaIF() override { return &media; }
  std::shared_ptr<qs_ns::QS_CacheThreadBase> getCacheThread() override { return cache; }
  pfir_upFilterState* getFirUpState() override { return filter; }
  void setState(int) override { onSetState(); }
  void reportPlayRequestResult(const qs_ns::QS_PlayRequest* request, int result) override {
    onReport(result);
    reports.emplace_back(request->handle, result);
  }
  bool isCacheEnabled() override { return cacheEnabled; }
  int startMsAudPlayback() override {
    onStartPlayback();
    return media.startMsAudPlaybackSession() == 0 ? 0 : -10;
  }
  void reportCachingComplete(const qs_ns::QS_CacheThreadBase*) override {}
  bool isMessageQueueBusy() override { return false; }
  void restartCaching(bool force) override {
    EXPECT_FALSE(force) << "only a reload throws the caches away";
    restarts.add();
  }
};

/// A queue that plays nothing.
// Queues are never destroyed through their base, which has no virtual destructor.
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor)
class FakeQueue final : public qs_ns::QS_MessageQueueBase {
 public:
  using Request = std::unique_ptr<qs_ns::QS_PlayRequest>;
  std::function<void(Request)> onAdd = [](const Request&) {};
  std::function<void(std::uint64_t)> onStopPlaying = [](std::uint64_t) {};
  std::function<void()> onStop = [] {};
  int added = 0;
  int stops = 0;

  void runThread() override {}
  void stopThread() override {
    ++stops;
    onStop();
  }
  void notifyThread(const qs_ns::QS_PlayRequest*) override {}
  int stopPlaying(const unsigned long long& handle) override {
    onStopPlaying(handle);
    return 3;
  }
  void addToQueue(std::unique_ptr<qs_ns::QS_PlayRequest> request) override {
    onAdd(std::move(request));
    ++added;
  }
  bool isBusy() override { return false; }
  int requestsWaiting() override { return 5; }
};

inline std::unique_ptr<qs_ns::QS_PlayRequest> makeRequest(std::vector<std::string> texts,
                                                          std::int32_t flags = 0,
                                                          const char* alert = nullptr) {
  return std::make_unique<qs_ns::QS_PlayRequest>(std::move(texts), alert, 0, 0, flags);
}

}  // namespace test
