#pragma once

#include <dbus-c++/dbus.h>

#include "app/bus_dispatcher.h"
#include "dbus/quillspeak_dbus_impl.h"
#include "platform/property_file_watch.h"

namespace qs_ns {

/// Lets the service announce its state when the property file may have changed: on the loop's turn,
/// since the library holds a lock while it calls whoever watches a descriptor. Main thread.
class StateSignal {
 public:
  /// Both outlive the object.
  StateSignal(CheckingBusDispatcher& loop, QuillspeakDBusImpl& announcing);
  ~StateSignal();
  StateSignal(const StateSignal&) = delete;
  StateSignal& operator=(const StateSignal&) = delete;

 private:
  void look();

  CheckingBusDispatcher& dispatcher;
  QuillspeakDBusImpl& service;
  platform::PropertyFileWatch file;
  DBus::DefaultWatch wakeUp;
};

}  // namespace qs_ns
