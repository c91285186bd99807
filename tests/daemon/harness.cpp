#include "daemon/harness.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <fstream>

#include <gtest/gtest.h>

namespace test {

namespace {

using Deadline = std::chrono::steady_clock::time_point;

constexpr char kService[] = "com.wexel.Quillspeak";
constexpr char kPath[] = "/com/wexel/Quillspeak";
constexpr char kInterface[] = "com.wexel.QuillspeakInterface1";
constexpr std::chrono::seconds kPatience{30};

Deadline after(std::chrono::milliseconds time) {
  return std::chrono::steady_clock::now() + time;
}

std::chrono::milliseconds left(Deadline deadline) {
  return std::max(std::chrono::milliseconds(0),
                  std::chrono::duration_cast<std::chrono::milliseconds>(
                      deadline - std::chrono::steady_clock::now()));
}

std::string busConfiguration(const std::string& socket) {
  return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
         "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\"><busconfig>"
         "<listen>unix:path=" +
         socket +
         "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
         "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
         "<allow own=\"*\"/></policy></busconfig>";
}

struct Message {
  sd_bus_message* raw = nullptr;
  Message() = default;
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;
  ~Message() { sd_bus_message_unref(raw); }
};

sd_bus_message* newCall(sd_bus* bus, const char* method, const char* interface = kInterface) {
  sd_bus_message* call = nullptr;
  EXPECT_GE(sd_bus_message_new_method_call(bus, &call, kService, kPath, interface, method), 0);
  return call;
}

Reply readReply(sd_bus_message* reply, const char* resultType) {
  Reply result;
  if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
    result.error = error->name;
    result.message = error->message;
  } else if (std::strcmp(resultType, "t") == 0) {
    EXPECT_GT(sd_bus_message_read_basic(reply, 't', &result.value), 0);
  } else if (std::strcmp(resultType, "i") == 0) {
    std::int32_t value = 0;
    EXPECT_GT(sd_bus_message_read_basic(reply, 'i', &value), 0);
    result.value = static_cast<std::uint64_t>(std::int64_t{value});
  }
  return result;
}

}  // namespace

PrivateBus::PrivateBus(const ScratchFolder& folder) : socket(folder / "bus") {
  unlink(socket.c_str());
  writeFile(folder / "bus.conf", busConfiguration(socket));
  // It goes with the test also where that is killed, and the daemon goes with it.
  process = std::make_unique<ChildProcess>(
      "/usr/bin/setpriv",
      std::vector<std::string>{"--pdeathsig", "KILL", "/usr/bin/dbus-daemon", "--nofork",
                               "--print-address=1", "--config-file=" + (folder / "bus.conf")});
  // It prints its address once it listens.
  process->readByte();
}

void PrivateBus::kill() {
  ::kill(process->id(), SIGKILL);
  process->wait();
}

Daemon::Daemon(const ScratchFolder& folder, const std::string& busAddress, const Options& options)
    : logFile(folder / "log") {
  std::filesystem::create_directory(folder / "files");
  std::filesystem::create_directory(folder / "run");
  writeFile(folder / "properties.conf", options.properties);
  // The debug level, which is off by itself, shows what tests look for.
  writeFile(folder / "trace.conf", "baseseverity = 7\n");
  const std::ofstream created(logFile, std::ios::app);
  const std::string audio = options.audio.empty() ? "wav:" + (folder / "sound.wav") : options.audio;
  std::string program = QUILLSPEAK_DAEMON;
  std::vector<std::string> arguments = options.arguments;
  if (options.outputFull) {
    // As much as a pipe takes.
    const std::string fill = "head -c 65536 /dev/zero; exec \"$0\" \"$@\"";
    arguments.insert(arguments.begin(), {"-c", fill, program});
    program = "/bin/sh";
  }
  process = std::make_unique<ChildProcess>(
      program, arguments,
      Environment{preloadEntry(), "QS_TEST_SYSLOG=" + logFile, "QS_TEST_RAND=1",
                  "QS_TEST_FILES=" + (folder / "files"), "DBUS_SYSTEM_BUS_ADDRESS=" + busAddress,
                  "QUILLSPEAK_RUN_DIR=" + (folder / "run"), "QUILLSPEAK_AUDIO=" + audio,
                  "QUILLSPEAK_PROPERTIES=" + (folder / "properties.conf"),
                  "QUILLSPEAK_TRACE=" + (folder / "trace.conf")});
}

Daemon::~Daemon() {
#ifdef QUILLSPEAK_COVERAGE
  // What is killed does not write down what it counted.
  if (process->hasEnded()) return;
  signal(SIGTERM);
  process->wait();
#endif
}

void Daemon::signal(int number) const {
  ::kill(process->id(), number);
}

int Daemon::exitStatus() {
  const int status = process->wait();
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::vector<std::string> Daemon::log() const {
  std::vector<std::string> lines;
  std::ifstream file(logFile);
  for (std::string line; std::getline(file, line);)
    lines.push_back(line);
  return lines;
}

int Daemon::countLog(const std::string& part) const {
  const auto lines = log();
  return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
    return line.find(part) != std::string::npos;
  }));
}

bool Daemon::waitForLog(const std::string& part, int count) const {
  return waitForFile(logFile, [&] { return countLog(part) >= count; });
}

bool waitForFile(const std::string& path, const std::function<bool()>& done) {
  const int watcher = inotify_init1(IN_CLOEXEC);
  inotify_add_watch(watcher, path.c_str(), IN_MODIFY);
  const Deadline deadline = after(kPatience);
  bool met = done();
  while (!met && left(deadline).count() > 0) {
    pollfd ready{watcher, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(left(deadline).count())) > 0) {
      char events[4096];
      [[maybe_unused]] const ssize_t size = read(watcher, events, sizeof events);
    }
    met = done();
  }
  close(watcher);
  return met;
}

Client::Client(const std::string& busAddress) {
  sd_bus* raw = nullptr;
  EXPECT_GE(sd_bus_new(&raw), 0);
  connection.reset(raw);
  EXPECT_GE(sd_bus_set_address(raw, busAddress.c_str()), 0);
  EXPECT_GE(sd_bus_set_bus_client(raw, 1), 0);
  EXPECT_GE(sd_bus_start(raw), 0);
  EXPECT_GE(sd_bus_match_signal(raw, nullptr, nullptr, kPath, kInterface, "ReportTTSPlayResult",
                                onResult, this),
            0);
  // Changes of owners wake `awaitName`.
  EXPECT_GE(
      sd_bus_match_signal(
          raw, nullptr, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
          "NameOwnerChanged", [](sd_bus_message*, void*, sd_bus_error*) { return 0; }, nullptr),
      0);
}

template <typename Done>
bool Client::processUntil(Done done, std::chrono::milliseconds limit) {
  const Deadline deadline = after(limit);
  for (;;) {
    while (sd_bus_process(bus(), nullptr) > 0) {
    }
    if (done()) return true;
    if (left(deadline).count() == 0) return false;
    const auto wait = std::chrono::duration_cast<std::chrono::microseconds>(left(deadline));
    sd_bus_wait(bus(), static_cast<std::uint64_t>(wait.count()));
  }
}

bool Client::nameOwned() {
  Message reply;
  int owned = 0;
  EXPECT_GE(sd_bus_call_method(bus(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "NameHasOwner", nullptr, &reply.raw, "s",
                               kService),
            0);
  EXPECT_GT(sd_bus_message_read_basic(reply.raw, 'b', &owned), 0);
  return owned != 0;
}

bool Client::awaitName(bool owned) {
  return processUntil([&] { return nameOwned() == owned; }, std::chrono::seconds(40));
}

Reply Client::finish(sd_bus_message* call, const char* resultType) {
  sd_bus_error error{};
  Message reply;
  const int status = sd_bus_call(bus(), call, 0, &error, &reply.raw);
  Reply result;
  if (status >= 0) {
    result = readReply(reply.raw, resultType);
  } else {
    result.error = error.name != nullptr ? error.name : std::strerror(-status);
    result.message = error.message != nullptr ? error.message : "";
  }
  sd_bus_error_free(&error);
  sd_bus_message_unref(call);
  return result;
}

Reply Client::play(const std::vector<std::string>& texts, std::int32_t flags, std::int32_t params,
                   std::int32_t type) {
  sd_bus_message* call = newCall(bus(), "DoTTSAndPlay");
  sd_bus_message_open_container(call, 'a', "s");
  for (const std::string& text : texts)
    sd_bus_message_append_basic(call, 's', text.c_str());
  sd_bus_message_close_container(call);
  sd_bus_message_append(call, "iii", params, type, flags);
  return finish(call, "t");
}

Reply Client::stop(std::uint64_t handle) {
  sd_bus_message* call = newCall(bus(), "StopTTSPlay");
  sd_bus_message_append(call, "tii", handle, 0, 0);
  return finish(call, "t");
}

Reply Client::reload(std::int32_t flags) {
  sd_bus_message* call = newCall(bus(), "ReloadConfig");
  sd_bus_message_append(call, "i", flags);
  return finish(call, "");
}

Reply Client::setVolume(std::int32_t volume) {
  sd_bus_message* call = newCall(bus(), "SetVolume");
  sd_bus_message_append(call, "i", volume);
  return finish(call, "");
}

Reply Client::fetch(const std::string& text, const std::string& path) {
  sd_bus_message* call = newCall(bus(), "DoTTSFetchInFile");
  sd_bus_message_append(call, "ss", text.c_str(), path.c_str());
  return finish(call, "i");
}

void Client::fetchLater(const std::string& text, const std::string& path) {
  sd_bus_message* call = newCall(bus(), "DoTTSFetchInFile");
  sd_bus_message_append(call, "ss", text.c_str(), path.c_str());
  EXPECT_GE(sd_bus_call_async(bus(), nullptr, call, onFetched, this, 0), 0);
  sd_bus_message_unref(call);
  sd_bus_flush(bus());
}

std::vector<Reply> Client::awaitFetched(std::size_t count) {
  processUntil([&] { return fetched.size() >= count; }, kPatience);
  return fetched;
}

std::optional<std::int32_t> Client::property(const std::string& name) {
  std::int32_t value = 0;
  sd_bus_error error{};
  const int status = sd_bus_get_property_trivial(bus(), kService, kPath, kInterface, name.c_str(),
                                                 &error, 'i', &value);
  sd_bus_error_free(&error);
  return status >= 0 ? std::optional(value) : std::nullopt;
}

Reply Client::call(const char* interface, const char* method, const char* signature, ...) {
  sd_bus_message* message = newCall(bus(), method, *interface != '\0' ? interface : nullptr);
  va_list arguments;
  va_start(arguments, signature);
  EXPECT_GE(sd_bus_message_appendv(message, signature, arguments), 0);
  va_end(arguments);
  return finish(message, "");
}

std::string Client::introspect() {
  Message reply;
  const char* text = "";
  if (sd_bus_call_method(bus(), kService, kPath, "org.freedesktop.DBus.Introspectable",
                         "Introspect", nullptr, &reply.raw, "") >= 0) {
    sd_bus_message_read_basic(reply.raw, 's', &text);
  }
  return text;
}

int Client::onResult(sd_bus_message* message, void* self, sd_bus_error*) {
  if (sd_bus_message_has_signature(message, "asuuuut") == 0) return 0;
  PlayResult result;
  EXPECT_GT(sd_bus_message_enter_container(message, 'a', "s"), 0);
  const char* text = nullptr;
  while (sd_bus_message_read_basic(message, 's', &text) > 0)
    result.texts.emplace_back(text);
  sd_bus_message_exit_container(message);
  EXPECT_GT(sd_bus_message_read(message, "uuuut", &result.params, &result.type, &result.flags,
                                &result.resultCode, &result.handle),
            0);
  static_cast<Client*>(self)->received.push_back(std::move(result));
  return 0;
}

int Client::onFetched(sd_bus_message* message, void* self, sd_bus_error*) {
  static_cast<Client*>(self)->fetched.push_back(readReply(message, "i"));
  return 0;
}

void Client::listen(std::chrono::milliseconds time) {
  processUntil([] { return false; }, time);
}

std::optional<PlayResult> Client::awaitResult(std::uint64_t handle) {
  processUntil([&] { return hasResult(handle); }, kPatience);
  const auto found = std::find_if(received.begin(), received.end(),
                                  [handle](const auto& result) { return result.handle == handle; });
  return found != received.end() ? std::optional(*found) : std::nullopt;
}

bool Client::awaitResults(std::size_t count) {
  return processUntil([&] { return received.size() >= count; }, kPatience);
}

bool Client::hasResult(std::uint64_t handle) const {
  return std::any_of(received.begin(), received.end(),
                     [handle](const auto& result) { return result.handle == handle; });
}

const std::vector<PlayResult>& Client::results() {
  // Whatever was sent before the answer to this has been received with it.
  nameOwned();
  while (sd_bus_process(bus(), nullptr) > 0) {
  }
  return received;
}

std::vector<std::int16_t> readRecording(const std::string& path) {
  constexpr std::size_t kHeader = 44;
  const std::string file = readFile(path);
  if (file.size() <= kHeader) return {};
  std::vector<std::int16_t> samples((file.size() - kHeader) / sizeof(std::int16_t));
  std::memcpy(samples.data(), file.data() + kHeader, samples.size() * sizeof(std::int16_t));
  return samples;
}

}  // namespace test
