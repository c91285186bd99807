#include "app/bus_dispatcher.h"

#include <poll.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <iterator>
#include <utility>

#include "app/process.h"
#include "platform/clock.h"
#include "platform/mutex.h"
#include "platform/property_store.h"
#include "platform/thread.h"

namespace qs_ns {

namespace {

platform::Mutex dispatcherMutex{true};
CheckingBusDispatcher* registeredDispatcher GUARDED_BY(dispatcherMutex) = nullptr;
std::atomic<int> automationStatus{-1};
// Is the bus name about to be given up? Whoever asks again meanwhile gets no second thread.
std::atomic<bool> disconnecting{false};

// Whoever started the process sees 255.
constexpr int kBusLost = -1;

}  // namespace

CheckingBusDispatcher::CheckingBusDispatcher() : watch(posted.descriptor(), POLLIN, this) {
  if (watchdog.descriptor() >= 0) feeding.emplace(watchdog.descriptor(), POLLIN, this);
}

CheckingBusDispatcher::~CheckingBusDispatcher() {
  // The library closes the descriptors that wake its loop only when it is told to leave.
  if (left) return;
  for (const int end : _fdunlock)
    close(end);
}

void CheckingBusDispatcher::rem_watch(DBus::Watch* removed) {
  if (std::this_thread::get_id() != loopThread) return DBus::BusDispatcher::rem_watch(removed);
  static_cast<DBus::BusWatch*>(removed)->DBus::DefaultWatch::enabled(false);
  removedWatches.push_back(removed);
}

void CheckingBusDispatcher::rem_timeout(DBus::Timeout* removed) {
  if (std::this_thread::get_id() != loopThread) return DBus::BusDispatcher::rem_timeout(removed);
  static_cast<DBus::BusTimeout*>(removed)->DBus::DefaultTimeout::enabled(false);
  removedTimeouts.push_back(removed);
}

void CheckingBusDispatcher::deleteRemoved() {
  for (DBus::Watch* const removed : std::exchange(removedWatches, {}))
    DBus::BusDispatcher::rem_watch(removed);
  for (DBus::Timeout* const removed : std::exchange(removedTimeouts, {}))
    DBus::BusDispatcher::rem_timeout(removed);
}

void CheckingBusDispatcher::do_iteration() {
  if (connection != nullptr && !connection->connected()) {
    syslog(LOG_ERR, "Lost DBUS system bus connection, exiting.");
    endProcess(kBusLost);
  }
  watchdog.feedWhenDue();
  deleteRemoved();
  posted.run();
  // The library has closed its wake-up descriptors by now; another poll would watch a stranger's.
  if (left) return;
  if (connectionIsAnothers) {
    pollfd ours[] = {{posted.descriptor(), POLLIN, 0}, {watchdog.descriptor(), POLLIN, 0}};
    poll(ours, std::size(ours), -1);
    return;
  }
  if (turn) turn();
  DBus::BusDispatcher::do_iteration();
}

void CheckingBusDispatcher::postLeave() {
  posted.post(BusWork::Kind::leave, [this] { leaveOnce(); });
}

void CheckingBusDispatcher::leaveOnce() {
  if (left) return;
  left = true;
  leave();
}

void set_dispatcher(CheckingBusDispatcher* dispatcher) {
  const platform::MutexLock hold(dispatcherMutex);
  registeredDispatcher = dispatcher;
}

bool withDispatcher(const std::function<void(CheckingBusDispatcher&)>& use) {
  const platform::MutexLock hold(dispatcherMutex);
  if (registeredDispatcher == nullptr) {
    syslog(LOG_ERR, "dispatcher is NULL");
    return false;
  }
  use(*registeredDispatcher);
  return true;
}

int get_qs_automation_status() {
  return automationStatus;
}

void set_qs_automation_status(int status) {
  automationStatus = status;
}

bool automationEnabled() {
  int value = 0;
  return getIntegerProperty("device.feature.dbus-automation", &value) == 0 && value == 1;
}

void qs_disconnectDBus() {
  if (!automationEnabled() || disconnecting.exchange(true)) return;
  const int status =
      platform::startDetached("QS_Disconnect", [] { disconnectDBusMethod(nullptr); });
  if (status != 0) {
    disconnecting = false;
    syslog(LOG_WARNING, "%s: pthread create failed %s", "qs_disconnectDBus",
           std::strerror(-status));
  }
}

void* disconnectDBusMethod(void* /*unused*/) {
  platform::clock().sleepFor(std::chrono::seconds(1));
  withDispatcher([](CheckingBusDispatcher& dispatcher) {
    syslog(LOG_INFO, "Disconnecting DBus Connection");
    dispatcher.postLeave();
  });
  disconnecting = false;
  return nullptr;
}

}  // namespace qs_ns
