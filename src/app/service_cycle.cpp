#include "app/service_cycle.h"

#include <syslog.h>

#include <chrono>

#include "app/automation_client.h"
#include "app/bus_dispatcher.h"
#include "app/state_signal.h"
#include "core/controller.h"
#include "dbus/quillspeak_dbus_impl.h"
#include "media/media_interface.h"
#include "platform/process_services.h"
#include "platform/watchdog.h"
#include "playback/message_queue_thread.h"
#include "tts/speech_engine.h"

namespace qs_ns {

namespace {

constexpr char kBusName[] = "com.wexel.Quillspeak";
constexpr std::chrono::seconds kPause{20};

enum class NextCycle { atOnce, afterPause };

/// Runs the bus loop until it leaves; a lost connection ends the process only meanwhile.
void runLoop(CheckingBusDispatcher& dispatcher, DBus::Connection& connection) {
  dispatcher.attach(&connection);
  dispatcher.enter();
  dispatcher.attach(nullptr);
}

/// The service objects live here; they die in reverse order, after all threads that use them.
void serve(CheckingBusDispatcher& dispatcher, DBus::Connection& connection) {
  syslog(LOG_DEBUG, "%s: Detect that Automation is NOT active", "main");
  connection.request_name(kBusName, 0);
  restart_ready();
  syslog(LOG_NOTICE, "%s: DBus connection successful. Creating QS_Controller", "main");
  qs_flite_init();
  QuillspeakDBusImpl service(connection, dispatcher.work());
  const StateSignal stateSignal(dispatcher, service);
  QS_MessageQueueThread queue;
  QS_MediaInterface media;
  QS_Controller controller(&service, &queue, &media);
  service.setController(&controller);
  queue.setController(&controller);
  queue.runThread();
  runLoop(dispatcher, connection);
  controller.cleanupController();
}

/// Throws DBus::Error; the connection is gone then.
NextCycle connectAndServe(CheckingBusDispatcher& dispatcher) {
  DBus::Connection connection = DBus::Connection::SystemBus();
  connection.exit_on_disconnect(true);
  set_dispatcher(&dispatcher);
  const ResultsIgnored resultsIgnored(connection);
  if (qs_test_automation(&connection) != 0) {
    syslog(LOG_NOTICE, "%s: Entering dispatcher()", "main");
    runLoop(dispatcher, connection);
    set_dispatcher(nullptr);
    if (get_qs_automation_status() == 0) {
      syslog(LOG_WARNING, "%s: test_automation detected mock service unavailable", "main");
      connection.disconnect();
      return NextCycle::atOnce;
    }
  }
  if (get_qs_automation_status() != 0) {
    syslog(LOG_NOTICE, "%s: Detect that Automation IS active", "main");
    // Else the restart manager, which waits for a start to end, would end this one.
    restart_ready();
  } else {
    serve(dispatcher, connection);
  }
  connection.disconnect();
  return NextCycle::afterPause;
}

/// Other threads may post to the dispatcher until just before it dies.
class CycleDispatcher {
 public:
  CycleDispatcher() {
    DBus::_init_threading();
    DBus::default_dispatcher = &dispatcher;
  }
  ~CycleDispatcher() { set_dispatcher(nullptr); }
  CycleDispatcher(const CycleDispatcher&) = delete;
  CycleDispatcher& operator=(const CycleDispatcher&) = delete;

  CheckingBusDispatcher dispatcher;
};

void runCycle() {
  CycleDispatcher cycle;
  try {
    if (connectAndServe(cycle.dispatcher) == NextCycle::atOnce) return;
  } catch (const DBus::Error&) {
    syslog(LOG_ERR, "%s: Error in quillspeak connecting to DBus", "main");
  }
  set_qs_automation_status(-1);
  syslog(LOG_NOTICE, "Sleeping for 20 seconds before connecting quillspeak service back to DBUS");
  platform::sleepFed(kPause);
}

}  // namespace

void runServiceCycles() {
  for (;;)
    runCycle();
}

}  // namespace qs_ns
