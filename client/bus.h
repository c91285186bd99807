#pragma once

#include <quillspeak_proxy.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
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

/// Sees every message before the proxy does: follows who owns the daemon's name, keeps back results
/// that are not as declared or that somebody else sent, and holds the reply that is awaited.
class Sieve {
 public:
  explicit Sieve(DBus::Connection& sifted);
  ~Sieve();
  Sieve(const Sieve&) = delete;
  Sieve& operator=(const Sieve&) = delete;

 protected:
  std::string daemon;  // its unique name, empty where it does not run
  bool gone = false;   // has the daemon lost its name?
  std::uint32_t awaited = 0;
  std::optional<DBus::Message> reply;  // the one to the message `awaited`

 private:
  bool filter(const DBus::Message& message);
  void follow(const DBus::Message& ownerChange);

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
  /// How long a call may take to be answered where nothing else is said.
  static constexpr std::chrono::seconds kAnswerTime{25};
  /// What ended a wait.
  enum class End { done, deadline, interrupted, daemonGone, busLost };
  using Time = std::chrono::steady_clock::time_point;

  /// Throws Failure where there is no bus.
  Bus();
  using DBus::ObjectProxy::set_timeout;

  std::function<void(const PlayResult&)> onResult;

  /// From now on SIGINT and SIGTERM end waits instead of the process, each of them one;
  /// one that the process ignores stays ignored.
  void holdSignals();
  /// Takes in results until `done` holds.
  End waitFor(const std::function<bool()>& done, Time deadline = Time::max());

  /// The daemon's unique name; empty where it does not run.
  const std::string& owner() const { return daemon; }

  /// Begins a call, whose reply a later `waitFor` takes in. One at a time: the reply to one begun
  /// before is no longer waited for.
  template <typename... Values>
  void begin(const char* method, const Values&... values) {
    DBus::CallMessage call = newCall(method);
    DBus::MessageIter arguments = call.writer();
    (arguments << ... << values);
    sendAwaited(call);
  }
  /// What the call that was begun returned, once it has; throws DBus::Error where it failed.
  template <typename Value>
  std::optional<Value> answer() {
    if (!reply) return std::nullopt;
    if (reply->is_error()) throw DBus::Error(*reply);
    Value value{};
    DBus::MessageIter results = reply->reader();
    results >> value;
    return value;
  }

 private:
  static DBus::CallMessage newCall(const char* method);
  void sendAwaited(DBus::CallMessage& call);
  bool takeInterrupt();
  void handOver();
  void ReportTTSPlayResult(const std::vector<std::string>& texts, const std::uint32_t& params,
                           const std::uint32_t& type, const std::uint32_t& flags,
                           const std::uint32_t& code, const std::uint64_t& handle) override;

  platform::UniqueFd signals;
  std::vector<PlayResult> arrived;
  bool lost = false;  // was there no memory for a result?
};

/// What a call failed of and what to do about it, in a sentence.
std::string explain(const DBus::Error& error);
/// The same for a wait that neither met its condition nor its deadline nor an interrupt.
std::string explain(Bus::End end);

}  // namespace qs_client
