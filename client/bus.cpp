#include "bus.h"

#include <dbus/dbus-protocol.h>
#include <poll.h>
#include <sys/signalfd.h>

#include <csignal>

#include "failure.h"

namespace qs_client {

namespace {

constexpr char kPath[] = "/com/wexel/Quillspeak";
constexpr char kInterface[] = "com.wexel.QuillspeakInterface1";
constexpr char kService[] = "com.wexel.Quillspeak";
constexpr int kCallMs = 25'000;
constexpr char kOwnerChanges[] =
    "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',"
    "arg0='com.wexel.Quillspeak'";

bool isResult(const DBus::Message& message) {
  DBus::MessageIter argument = message.reader();
  if (argument.type() != 'a' || argument.array_type() != 's') return false;
  for (const char type : {'u', 'u', 'u', 'u', 't'}) {
    ++argument;
    if (argument.type() != type) return false;
  }
  return true;
}

bool isReply(const DBus::Message& message) {
  return message.type() == DBUS_MESSAGE_TYPE_METHOD_RETURN ||
         message.type() == DBUS_MESSAGE_TYPE_ERROR;
}

std::string ownerOf(DBus::Connection& connection) {
  DBus::CallMessage call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                         "GetNameOwner");
  DBus::MessageIter arguments = call.writer();
  arguments << std::string(kService);
  std::string name;
  try {
    DBus::Message answer = connection.send_blocking(call, kCallMs);
    DBus::MessageIter results = answer.reader();
    results >> name;
  } catch (const DBus::Error& error) {
    if (!std::string_view(error.name()).ends_with(".NameHasNoOwner")) throw;
  }
  return name;
}

}  // namespace

Sieve::Sieve(DBus::Connection& sifted) : connection(sifted) {
  filtered = new DBus::Callback<Sieve, bool, const DBus::Message&>(this, &Sieve::filter);
  connection.add_filter(filtered);
  connection.add_match(kOwnerChanges);
}

Sieve::~Sieve() {
  connection.remove_filter(filtered);
}

bool Sieve::filter(const DBus::Message& message) {
  if (message.is_signal("org.freedesktop.DBus", "NameOwnerChanged")) {
    follow(message);
    return false;
  }
  if (awaited != 0 && isReply(message) &&
      static_cast<std::uint32_t>(message.reply_serial()) == awaited) {
    reply = message;
    return true;
  }
  if (!message.is_signal(kInterface, "ReportTTSPlayResult")) return false;
  // Anybody may send such a signal, to us alone as well. The generated code that unpacks it throws
  // through the library where it is malformed.
  const char* const sender = message.sender();
  return sender == nullptr || sender != daemon || !isResult(message);
}

void Sieve::follow(const DBus::Message& ownerChange) {
  const char* const sender = ownerChange.sender();
  if (sender == nullptr || std::string_view(sender) != "org.freedesktop.DBus") return;
  std::string name;
  std::string before;
  std::string after;
  DBus::MessageIter arguments = ownerChange.reader();
  arguments >> name >> before >> after;
  if (name != kService) return;
  if (!before.empty() && before == daemon) gone = true;
  daemon = after;
}

Bus::Bus()
    : DBus::Connection(DBus::Connection::SystemBus()),
      Sieve(static_cast<DBus::Connection&>(*this)),
      DBus::ObjectProxy(static_cast<DBus::Connection&>(*this), kPath, kService) {
  DBus::Connection::exit_on_disconnect(false);
  set_timeout(kCallMs);
  daemon = ownerOf(*this);
}

void Bus::ReportTTSPlayResult(const std::vector<std::string>& texts, const std::uint32_t& params,
                              const std::uint32_t& type, const std::uint32_t& flags,
                              const std::uint32_t& code, const std::uint64_t& handle) {
  if (onResult) onResult({texts, params, type, flags, code, handle});
}

void Bus::holdSignals() {
  sigset_t held;
  sigemptyset(&held);
  sigaddset(&held, SIGINT);
  sigaddset(&held, SIGTERM);
  sigprocmask(SIG_BLOCK, &held, nullptr);
  signals = platform::UniqueFd(signalfd(-1, &held, SFD_CLOEXEC));
}

bool Bus::interrupted() const {
  pollfd signal{signals.get(), POLLIN, 0};
  return signals && poll(&signal, 1, 0) > 0;
}

Bus::End Bus::waitFor(const std::function<bool()>& done, Time deadline) {
  DBus::DefaultWatch signal(signals.get(), POLLIN, &dispatcher);
  // The library's loop waits no longer than its next timeout.
  DBus::DefaultTimeout tick(500, true, &dispatcher);
  for (;;) {
    dispatcher.dispatch_pending();
    if (done()) return End::done;
    if (interrupted()) return End::interrupted;
    if (!DBus::Connection::connected()) return End::busLost;
    if (gone) return End::daemonGone;
    if (std::chrono::steady_clock::now() >= deadline) return End::deadline;
    dispatcher.do_iteration();
  }
}

void Bus::beginConversion(const std::string& text, const std::string& path) {
  DBus::CallMessage call(kService, kPath, kInterface, "DoTTSFetchInFile");
  DBus::MessageIter arguments = call.writer();
  arguments << text << path;
  if (!DBus::Connection::send(call, &awaited)) throw DBus::ErrorNoMemory("out of memory");
}

std::optional<std::int32_t> Bus::conversionResult() {
  if (!reply) return std::nullopt;
  if (reply->is_error()) throw DBus::Error(*reply);
  std::int32_t code = 0;
  DBus::MessageIter results = reply->reader();
  results >> code;
  return code;
}

std::string explain(const DBus::Error& error) {
  const std::string_view name = error.name();
  const auto is = [name](std::string_view end) { return name.ends_with(end); };
  if (is(".ServiceUnknown") || is(".NameHasNoOwner")) return kNotRunning;
  if (is(".AccessDenied")) {
    return "the bus does not let you ask the daemon for this; join the group quillspeak";
  }
  if (is(".FileNotFound") || is(".NoServer")) {
    return "there is no system bus; start it, or set DBUS_SYSTEM_BUS_ADDRESS";
  }
  if (is(".Disconnected")) return explain(Bus::End::busLost);
  if (is(".NoReply")) return "the daemon did not answer; see its log";
  return error.message();
}

std::string explain(Bus::End end) {
  if (end == Bus::End::busLost) return "the bus was lost; try again when it is back";
  return "the daemon left the bus; see its log";
}

}  // namespace qs_client
