#pragma once

#include <quillspeak_proxy.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <dbus-c++/dbus.h>

#include "platform/unique_fd.h"

namespace qs_client {

struct PlayResult {
  std::vector<std::string> texts;
  std::uint32_t params, type, flags, code;
  std::uint64_t handle;
};

/// Makes the library's dispatcher known before a connection asks for it.
struct Loop {
  Loop() { DBus::default_dispatcher = &dispatcher; }
  DBus::BusDispatcher dispatcher;
};

/// Sees every message before the proxy does: notes that the daemon has gone, and keeps back results
/// that are not as declared.
class Sieve {
 public:
  explicit Sieve(DBus::Connection& sifted);
  ~Sieve();
  Sieve(const Sieve&) = delete;
  Sieve& operator=(const Sieve&) = delete;

 protected:
  bool gone = false;  // has the daemon lost its name?

 private:
  bool filter(const DBus::Message& message);

  DBus::Connection& connection;
  DBus::MessageSlot filtered;
};

/// The daemon's interface on the system bus. Results are subscribed to from the start and handed
/// over only in `waitFor`, so that none is lost during a call. One thread; calls block for 25 s at
/// most where nothing else is said, and throw DBus::Error.
class Bus final : private Loop,
                  private DBus::Connection,
                  private Sieve,
                  public com::wexel::QuillspeakInterface1_proxy,
                  public DBus::ObjectProxy {
 public:
  /// What ended a wait.
  enum class End { done, deadline, interrupted, daemonGone };
  using Time = std::chrono::steady_clock::time_point;

  /// Throws DBus::Error where there is no bus.
  Bus();
  using DBus::ObjectProxy::set_timeout;

  std::function<void(const PlayResult&)> onResult;

  /// From now on SIGINT and SIGTERM end waits instead of the process.
  void holdSignals();
  /// Takes in results until `done` holds.
  End waitFor(const std::function<bool()>& done, Time deadline = Time::max());

  /// The daemon's unique name; throws where it does not run.
  std::string owner();

 private:
  bool interrupted() const;
  void ReportTTSPlayResult(const std::vector<std::string>& texts, const std::uint32_t& params,
                           const std::uint32_t& type, const std::uint32_t& flags,
                           const std::uint32_t& code, const std::uint64_t& handle) override;

  platform::UniqueFd signals;
};

}  // namespace qs_client
