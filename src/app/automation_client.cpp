#include "app/automation_client.h"

#include <dbus/dbus-protocol.h>
#include <syslog.h>

#include <chrono>
#include <cstring>
#include <future>
#include <memory>

#include "app/bus_dispatcher.h"
#include "platform/clock.h"
#include "platform/thread.h"

namespace qs_ns {

namespace {

constexpr char kService[] = "com.wexel.Quillspeak";
constexpr char kPath[] = "/com/wexel/Quillspeak";

/// Returns once the loop on the main thread has left the connection to this one.
void takeConnection() {
  // Shared: the loop may still be inside `set_value` when this has returned.
  const auto isOurs = std::make_shared<std::promise<void>>();
  const bool posted = withDispatcher([&isOurs](CheckingBusDispatcher& dispatcher) {
    dispatcher.work().post(BusWork::Kind::reply, [isOurs, &dispatcher] {
      dispatcher.leaveConnectionAlone();
      isOurs->set_value();
    });
  });
  if (posted) isOurs->get_future().wait();
}

/// Throws DBus::Error where nobody answers, or not with a number.
void probe(DBus::Connection& connection) {
  takeConnection();
  const QuillspeakTestImpl proxy(connection);
  syslog(LOG_NOTICE, "%s: Client succesfully created", "testDBusThread");
  DBus::CallMessage call(kService, kPath, "org.freedesktop.DBus.Properties", "Get");
  DBus::MessageIter arguments = call.writer();
  arguments << std::string("com.wexel.QuillspeakInterface1") << std::string("Version");
  DBus::Message reply = connection.send_blocking(call);
  DBus::MessageIter results = reply.reader();
  // Not by the library's variant, which copies whatever it finds and does not survive all of it.
  if (results.type() != DBUS_TYPE_VARIANT) throw DBus::ErrorInvalidArgs("variant type expected");
  results.recurse().get_int32();
}

}  // namespace

QuillspeakTestImpl::QuillspeakTestImpl(DBus::Connection& connection)
    : DBus::ObjectProxy(connection, kPath, kService) {}

void QuillspeakTestImpl::ReportTTSPlayResult(const std::vector<std::string>&, const std::uint32_t&,
                                             const std::uint32_t&, const std::uint32_t&,
                                             const std::uint32_t&, const std::uint64_t&) {}

ResultsIgnored::ResultsIgnored(DBus::Connection& probed) : connection(probed) {
  filter =
      new DBus::Callback<ResultsIgnored, bool, const DBus::Message&>(this, &ResultsIgnored::take);
  connection.add_filter(filter);
}

ResultsIgnored::~ResultsIgnored() {
  connection.remove_filter(filter);
}

bool ResultsIgnored::take(const DBus::Message& message) {
  return message.is_signal("com.wexel.QuillspeakInterface1", "ReportTTSPlayResult");
}

int qs_test_automation(DBus::Connection* connection) {
  if (get_qs_automation_status() != -1) return 0;
  if (!automationEnabled()) {
    set_qs_automation_status(0);
    return 0;
  }
  const int status =
      platform::startDetached("QS_BusProbe", [connection] { testDBusThread(connection); });
  if (status != 0) {
    syslog(LOG_WARNING, "%s: pthread create failed %s \n", "qs_test_automation",
           std::strerror(-status));
    set_qs_automation_status(0);
    return 0;
  }
  return 1;
}

void* testDBusThread(void* connection) {
  platform::clock().sleepFor(std::chrono::seconds(2));
  syslog(LOG_INFO, "%s: Testing if Mock DBus Connection exists", "testDBusThread");
  try {
    probe(*static_cast<DBus::Connection*>(connection));
    set_qs_automation_status(1);
  } catch (const DBus::Error&) {
    syslog(LOG_ERR, "%s: Error in quillspeak connecting to DBus", "testDBusThread");
    set_qs_automation_status(0);
  }
  syslog(LOG_ERR, "%s: QS Active check: %d", "testDBusThread", get_qs_automation_status());
  withDispatcher([](CheckingBusDispatcher& dispatcher) { dispatcher.postLeave(); });
  return nullptr;
}

}  // namespace qs_ns
