#include "core/controller.h"

#include <syslog.h>

#include <chrono>
#include <utility>

#include "cache/cache_thread.h"
#include "core/interfaces/bus_release.h"
#include "platform/clock.h"
#include "platform/property_store.h"
#include "platform/watchdog.h"
#include "playback/play_request.h"

namespace qs_ns {

namespace {

constexpr char kAlertFile[] = "/usr/mbin/data/rt/error_mono.raw";
constexpr int kUpSampling = 3;
constexpr int kAttempts = 3;
constexpr int kGaveUp = -10;
constexpr int kAutomationTrigger = 0x1;

bool cachingWanted() {
  char value[128] = {};
  return getStringProperty("qs_cache", value, sizeof value) != 0 ||
         std::string_view(value) != "disable";
}

bool featureEnabled() {
  bool enabled = false;
  getBooleanProperty("device.accessibility.qs_enabled", &enabled);
  return enabled;
}

}  // namespace

void QS_Controller::ReleaseFilter::operator()(pfir_upFilterState* state) const {
  pfir_releaseUpFilter(state);
  delete state;
}

QS_Controller::QS_Controller(QS_DBusBase* dbus, QS_MessageQueueBase* queue,
                             QS_MediaInterfaceBase* media)
    : mDBus(dbus), mThread(queue), mMediaIF(media) {
  initializeMSWithController();
  mCacheEnabled = cachingWanted();
  mFirUpState.reset(new pfir_upFilterState{});
  if (pfir_initUpFilter(mFirUpState.get(), pfir_getUpFilterConfig(kUpSampling)) != 0) {
    mFirUpState.reset();
  }
  mCachingStarted = featureEnabled();
  const std::shared_ptr<QS_CacheThreadBase> builder = createCacheThread(this, !mCachingStarted);
  {
    const platform::MutexLock hold(mCacheMutex);
    mCacheThread = builder;
  }
  builder->runThread();
}

QS_Controller::~QS_Controller() {
  cleanupController();
}

void QS_Controller::cleanupController() {
  if (QS_MessageQueueBase* const queue = mThread.load()) {
    syslog(LOG_WARNING, "%s: Stopping MessageQueueThread", "cleanupController");
    queue->stopThread();
    mThread = nullptr;
  }
  std::shared_ptr<QS_CacheThreadBase> builder;
  {
    const platform::MutexLock hold(mCacheMutex);
    if (mCacheThread != nullptr) mCacheThread->stopThread();
    builder = std::move(mCacheThread);
  }
  mBuilders.joinAll();
  builder.reset();
  mFirUpState.reset();
}

std::uint64_t QS_Controller::playMediaFromText(const std::vector<std::string>& texts,
                                               const int& params, const int& type,
                                               const int& flags) {
  {
    const platform::MutexLock hold(mCacheMutex);
    if (mCacheThread != nullptr) mCacheThread->pauseThread();
  }
  auto request = std::make_unique<QS_PlayRequest>(texts, kAlertFile, params, type, flags);
  // The request may have been played and gone before addToQueue returns.
  const std::uint64_t handle = request->handle;
  if (QS_MessageQueueBase* const queue = mThread.load()) {
    queue->addToQueue(std::move(request));
  } else {
    syslog(LOG_ERR, "mThread is null");
  }
  return handle;
}

int QS_Controller::stopMediaPlaying(const std::uint64_t& handle, const int& /*type*/,
                                    const int& /*flags*/) {
  QS_MessageQueueBase* const queue = mThread.load();
  return queue != nullptr ? queue->stopPlaying(handle) : 0;
}

void QS_Controller::reloadConfig(const int& flags) {
  if ((flags & kAutomationTrigger) != 0) {
    syslog(LOG_ERR, "%s: Automation trigger detected:%d", "reloadConfig", flags);
    qs_disconnectDBus();
    return;
  }
  restartCaching(true);
}

void QS_Controller::setVolume(int volume) {
  mMediaIF->setVolume(volume);
}

int QS_Controller::requestsWaiting() const {
  QS_MessageQueueBase* const queue = mThread.load();
  return queue != nullptr ? queue->requestsWaiting() : 0;
}

std::shared_ptr<QS_CacheThreadBase> QS_Controller::getCacheThread() {
  const platform::MutexLock hold(mCacheMutex);
  return mCacheThread;
}

void QS_Controller::reportPlayRequestResult(const QS_PlayRequest* request, int result) {
  mDBus->reportPlayRequestResult(request->textToConvert, static_cast<unsigned>(request->params),
                                 static_cast<unsigned>(request->type),
                                 static_cast<unsigned>(request->flags),
                                 static_cast<unsigned>(result), request);
}

int QS_Controller::startMsAudPlayback() {
  int result = 0;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (mMediaIF->getMsAudPlaybackSession() != 0) return result;
    result = mMediaIF->startMsAudPlaybackSession();
    if (result == 0) return 0;
    platform::clock().sleepFor(std::chrono::milliseconds(50));
  }
  syslog(LOG_ERR, "%s: failed to open audio playback session", "startMsAudPlayback");
  return kGaveUp;
}

void QS_Controller::reportCachingComplete(const QS_CacheThreadBase* builder) {
  syslog(LOG_NOTICE, "%s: cacheThread destroyed and cleared", "reportCachingComplete");
  const platform::MutexLock hold(mCacheMutex);
  if (mCacheThread.get() == builder) mCacheThread = nullptr;
}

bool QS_Controller::isMessageQueueBusy() {
  QS_MessageQueueBase* const queue = mThread.load();
  return queue != nullptr && queue->isBusy();
}

void QS_Controller::restartCaching(bool force) {
  if (!mCacheEnabled) return;
  // Outlives the lock: a builder's end reports back here and takes it.
  std::shared_ptr<QS_CacheThreadBase> replaced;
  {
    const platform::MutexLock hold(mCacheMutex);
    if (!force && mCachingStarted) return;
    if (mCacheThread != nullptr) mCacheThread->stopThread();
    // Made before the old one is let go of, so that one stays held where there is no memory.
    std::shared_ptr<QS_CacheThreadBase> builder = createCacheThread(this, false);
    replaced = std::exchange(mCacheThread, std::move(builder));
    mCacheThread->clearDynamicPhraseCache();
    mCacheThread->runThread();
    mCachingStarted = true;
  }
}

int QS_Controller::initializeMSWithController() {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (mMediaIF->initializeMSInterface()) return 0;
    syslog(LOG_WARNING, "%s: failed. Trying again in 5 seconds", "initializeMSWithController");
    platform::sleepFed(std::chrono::seconds(5));
  }
  syslog(LOG_ERR, "%s: Could not intializeMSController", "initializeMSWithController");
  return kGaveUp;
}

std::shared_ptr<QS_CacheThreadBase> QS_Controller::createCacheThread(QS_ControllerBase* controller,
                                                                     bool featureOff) {
  return std::make_shared<QS_CacheThread>(controller, featureOff, mBuilders);
}

}  // namespace qs_ns
