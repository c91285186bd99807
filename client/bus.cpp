#include "bus.h"

#include <poll.h>
#include <sys/signalfd.h>

#include <csignal>

namespace qs_client {

namespace {

constexpr char kService[] = "com.wexel.Quillspeak";
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
    std::string name;
    std::string before;
    std::string after;
    DBus::MessageIter arguments = message.reader();
    arguments >> name >> before >> after;
    if (name == kService && !before.empty()) gone = true;
    return false;
  }
  // The generated code that unpacks a result throws through the library where it is malformed.
  return message.is_signal("com.wexel.QuillspeakInterface1", "ReportTTSPlayResult") &&
         !isResult(message);
}

Bus::Bus()
    : DBus::Connection(DBus::Connection::SystemBus()),
      Sieve(static_cast<DBus::Connection&>(*this)),
      DBus::ObjectProxy(static_cast<DBus::Connection&>(*this), "/com/wexel/Quillspeak", kService) {
  DBus::Connection::exit_on_disconnect(false);
  set_timeout(25'000);
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
    if (gone || !DBus::Connection::connected()) return End::daemonGone;
    if (std::chrono::steady_clock::now() >= deadline) return End::deadline;
    dispatcher.do_iteration();
  }
}

std::string Bus::owner() {
  DBus::CallMessage call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                         "GetNameOwner");
  DBus::MessageIter arguments = call.writer();
  arguments << std::string(kService);
  DBus::Message reply = DBus::Connection::send_blocking(call, 25'000);
  DBus::MessageIter results = reply.reader();
  std::string name;
  results >> name;
  return name;
}

}  // namespace qs_client
