#include "bus.h"

#include <dbus/dbus-protocol.h>
#include <grp.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <new>
#include <utility>

#include "failure.h"

namespace qs_client {

namespace {

constexpr char kPath[] = "/com/wexel/Quillspeak";
constexpr char kInterface[] = "com.wexel.QuillspeakInterface1";
constexpr char kService[] = "com.wexel.Quillspeak";
constexpr int kCallMs = std::chrono::milliseconds(Bus::kAnswerTime).count();
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

DBus::Connection connect() {
  try {
    return DBus::Connection::SystemBus();
  } catch (const DBus::Error& error) {
    // Some go on to guess at causes.
    const std::string message = error.message();
    throw Failure("the system bus cannot be reached (" + message.substr(0, message.find(". ")) +
                  "); start it, or set DBUS_SYSTEM_BUS_ADDRESS");
  }
}

// Does the installed policy let this user do everything?
bool isPrivileged() {
  if (geteuid() == 0) return true;
  const group* const ours = getgrnam("quillspeak");
  if (ours == nullptr) return false;
  if (getegid() == ours->gr_gid) return true;
  std::vector<gid_t> groups(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
  groups.resize(static_cast<std::size_t>(
      std::max(getgroups(static_cast<int>(groups.size()), groups.data()), 0)));
  return std::find(groups.begin(), groups.end(), ours->gr_gid) != groups.end();
}

// dbus-daemon names the call that it refuses, dbus-broker does not.
std::string explainRefusal(std::string_view message) {
  const auto isOf = [message](const char* member) {
    return message.find(member) != std::string_view::npos;
  };
  const bool isForGroup = isOf("DoTTSFetchInFile") || isOf("ReloadConfig") || isOf("SetVolume");
  if ((isForGroup || !isOf("member=")) && !isPrivileged()) {
    return "the bus lets only root and the group quillspeak ask the daemon for conversions, "
           "reloads and the volume; join the group and log in anew";
  }
  return "the bus does not let you ask the daemon for this; reinstall the policy "
         "/usr/share/dbus-1/system.d/com.wexel.Quillspeak.conf and look for one that overrules it";
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
    : DBus::Connection(connect()),
      Sieve(static_cast<DBus::Connection&>(*this)),
      DBus::ObjectProxy(static_cast<DBus::Connection&>(*this), kPath, kService) {
  DBus::Connection::exit_on_disconnect(false);
  set_timeout(kCallMs);
  daemon = ownerOf(*this);
}

void Bus::ReportTTSPlayResult(const std::vector<std::string>& texts, const std::uint32_t& params,
                              const std::uint32_t& type, const std::uint32_t& flags,
                              const std::uint32_t& code, const std::uint64_t& handle) {
  // This is called by the bus library, which nothing may be thrown through.
  try {
    arrived.push_back({texts, params, type, flags, code, handle});
  } catch (const std::bad_alloc&) {
    lost = true;
  }
}

void Bus::handOver() {
  if (std::exchange(lost, false)) throw std::bad_alloc();
  for (const PlayResult& one : std::exchange(arrived, {})) {
    if (onResult) onResult(one);
  }
}

void Bus::holdSignals() {
  sigset_t held;
  sigemptyset(&held);
  for (const int signal : {SIGINT, SIGTERM}) {
    struct sigaction now {};
    // One that the caller has us ignore would be heard all the same if it were held.
    if (sigaction(signal, nullptr, &now) == 0 && now.sa_handler != SIG_IGN) {
      sigaddset(&held, signal);
    }
  }
  sigprocmask(SIG_BLOCK, &held, nullptr);
  signals = platform::UniqueFd(signalfd(-1, &held, SFD_CLOEXEC));
}

bool Bus::takeInterrupt() {
  pollfd signal{signals.get(), POLLIN, 0};
  if (!signals || poll(&signal, 1, 0) <= 0) return false;
  signalfd_siginfo taken{};
  return read(signals.get(), &taken, sizeof taken) > 0;
}

Bus::End Bus::waitFor(const std::function<bool()>& done, Time deadline) {
  DBus::DefaultWatch signal(signals.get(), POLLIN, &dispatcher);
  // The library's loop waits no longer than its next timeout.
  DBus::DefaultTimeout tick(500, true, &dispatcher);
  for (;;) {
    dispatcher.dispatch_pending();
    handOver();
    if (done()) return End::done;
    if (takeInterrupt()) return End::interrupted;
    if (!DBus::Connection::connected()) return End::busLost;
    if (gone) return End::daemonGone;
    if (std::chrono::steady_clock::now() >= deadline) return End::deadline;
    dispatcher.do_iteration();
  }
}

DBus::CallMessage Bus::newCall(const char* method) {
  return {kService, kPath, kInterface, method};
}

void Bus::sendAwaited(DBus::CallMessage& call) {
  reply.reset();
  if (!DBus::Connection::send(call, &awaited)) throw std::bad_alloc();
}

std::string explain(const DBus::Error& error) {
  const std::string_view name = error.name();
  const auto is = [name](std::string_view end) { return name.ends_with(end); };
  if (is(".ServiceUnknown") || is(".NameHasNoOwner")) return kNotRunning;
  if (is(".AccessDenied")) return explainRefusal(error.message());
  if (is(".Disconnected")) return explain(Bus::End::busLost);
  if (is(".NoReply") || is(".Timeout")) return kNoAnswer;
  const std::string message = error.message();
  if (is(".InvalidArgs") || name.find(".Unknown") != std::string_view::npos) {
    return "the daemon does not know this call (" + message +
           "); install client and daemon of one version";
  }
  // The daemon's sentences say what to do themselves, but for one.
  const bool isWhole = message.find(';') != std::string::npos && !message.starts_with("internal");
  return isWhole ? message : message + "; look for the reason in " + kLog;
}

std::string explain(Bus::End end) {
  if (end == Bus::End::busLost) return "the bus was lost; try again when it is back";
  return std::string("the daemon left the bus; look for the reason in ") + kLog;
}

}  // namespace qs_client
