#pragma once

#include <functional>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include <dbus-c++/dbus.h>

#include "core/interfaces/bus_release.h"
#include "dbus/bus_work.h"
#include "platform/mutex.h"
#include "platform/watchdog.h"

namespace qs_ns {

/// The bus loop of one service cycle. Ends the process when the bus is lost, and runs what other
/// threads posted. Main thread, but for `work().post` and `postLeave`.
class CheckingBusDispatcher : public DBus::BusDispatcher {
 public:
  CheckingBusDispatcher();
  ~CheckingBusDispatcher() override;

  /// The connection whose loss ends the process; null for none.
  void attach(DBus::Connection* served) { connection = served; }

  void do_iteration() override;
  /// On the loop's own thread put aside what is removed, where it does nothing: the library may
  /// remove a watch or a timeout while it walks over it, and touches it afterwards. On another they
  /// wait until the loop has left it, since its descriptor and record die once they return.
  void rem_watch(DBus::Watch* removed) override;
  void rem_timeout(DBus::Timeout* removed) override;

  BusWork& work() { return posted; }

  /// What to do at each turn of the loop while the connection is its own; null for nothing. May not
  /// throw. Main thread.
  void atEachTurn(std::function<void()> work) { turn = std::move(work); }

  /// From the next iteration on the loop runs posted work alone and leaves the connection to
  /// another thread: two that read from it would wait for each other where the bus is lost. For the
  /// rest of the cycle; loop's own thread.
  void leaveConnectionAlone() { connectionIsAnothers = true; }

  /// Makes the loop leave once it has run what was posted before. Any thread; a second one in the
  /// same cycle does nothing, since the library's loop bears one only.
  void postLeave();

 private:
  void leaveOnce();
  void deleteRemoved();

  BusWork posted;
  DBus::DefaultWatch watch;
  const platform::Watchdog watchdog;
  std::optional<DBus::DefaultWatch> feeding;  // none where nobody watches
  DBus::Connection* connection = nullptr;
  /// Was the loop told to leave?
  bool left = false;
  bool connectionIsAnothers = false;
  std::function<void()> turn;
  const std::thread::id loopThread = std::this_thread::get_id();
  std::vector<DBus::Watch*> removedWatches;     // loop's thread only
  std::vector<DBus::Timeout*> removedTimeouts;  // loop's thread only
};

/// The dispatcher of the cycle under way, null for none. Main thread. Others reach it through
/// `withDispatcher`.
void set_dispatcher(CheckingBusDispatcher* dispatcher);

/// Calls `use` with the dispatcher of the cycle, which stays alive meanwhile; where there is none,
/// logs that and returns false. Any thread; `use` may only log and post.
bool withDispatcher(const std::function<void(CheckingBusDispatcher&)>& use);

/// -1 not known yet, 0 serve, 1 a test set-up has the name: stand aside. Any thread.
int get_qs_automation_status();
void set_qs_automation_status(int status);

/// Is the automation feature on in the property store?
bool automationEnabled();

/// The body of the thread that `qs_disconnectDBus` starts; the argument is not used.
void* disconnectDBusMethod(void* unused);

}  // namespace qs_ns
