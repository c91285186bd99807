#pragma once

#include <quillspeak_proxy.h>

#include <cstdint>
#include <string>
#include <vector>

#include <dbus-c++/dbus.h>

namespace qs_ns {

/// The probe's view of whoever serves our name.
class QuillspeakTestImpl final : public com::wexel::QuillspeakInterface1_proxy,
                                 public DBus::IntrospectableProxy,
                                 public DBus::PropertiesProxy,
                                 public DBus::ObjectProxy {
 public:
  explicit QuillspeakTestImpl(DBus::Connection& connection);

  /// Results of a test set-up's requests are nothing to us.
  void ReportTTSPlayResult(const std::vector<std::string>& textToConvert,
                           const std::uint32_t& params, const std::uint32_t& type,
                           const std::uint32_t& flags, const std::uint32_t& resultCode,
                           const std::uint64_t& handle) override;
};

/// Eats play results on a connection while it exists: the generated code that unpacks them throws
/// through the library where they are not as declared, may run before the proxy is whole, and
/// nobody here wants them. Made before the probe is started; main thread.
class ResultsIgnored {
 public:
  explicit ResultsIgnored(DBus::Connection& probed);
  ~ResultsIgnored();
  ResultsIgnored(const ResultsIgnored&) = delete;
  ResultsIgnored& operator=(const ResultsIgnored&) = delete;

 private:
  bool take(const DBus::Message& message);

  DBus::Connection& connection;
  DBus::MessageSlot filter;
};

/// Finds out, where the status is not known yet, whether a test set-up serves our bus name.
/// 1: a thread asks; run the bus loop until it leaves, then read the status. 0: the status is
/// known. Main thread.
int qs_test_automation(DBus::Connection* connection);

/// The body of the thread that asks; the argument is the cycle's `DBus::Connection`.
void* testDBusThread(void* connection);

}  // namespace qs_ns
