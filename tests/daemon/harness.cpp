#include "daemon/harness.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <fstream>

#include "platform/unique_fd.h"

namespace test {

namespace {

std::string busConfiguration(const std::string& socket, const std::string& policies) {
  return "<busconfig><listen>unix:path=" + socket + "</listen><auth>EXTERNAL</auth>" + policies +
         "</busconfig>";
}

Reply failure(const sd_bus_error& error) {
  return {.error = error.name, .message = error.message != nullptr ? error.message : ""};
}

// "name=number;" for each of a dictionary of numbers.
std::string readNumbers(sd_bus_message* message) {
  std::string text;
  const char* name = "";
  std::int32_t value = 0;
  EXPECT_GT(sd_bus_message_enter_container(message, 'a', "{sv}"), 0);
  while (sd_bus_message_read(message, "{sv}", &name, "i", &value) > 0)
    text += std::string(name) + "=" + std::to_string(value) + ";";
  return text;
}

Reply readReply(sd_bus_message* reply) {
  if (const sd_bus_error* error = sd_bus_message_get_error(reply)) return failure(*error);
  Reply result;
  const std::string type = sd_bus_message_get_signature(reply, 0);
  if (type == "s") {
    const char* text = "";
    EXPECT_GT(sd_bus_message_read_basic(reply, 's', &text), 0);
    result.text = text;
  } else if (type == "a{sv}") {
    result.text = readNumbers(reply);
  } else if (type == "t") {
    EXPECT_GT(sd_bus_message_read_basic(reply, 't', &result.value), 0);
  } else if (type == "i" || type == "v") {
    std::int32_t value = 0;
    EXPECT_TRUE(type == "i" || sd_bus_message_enter_container(reply, 'v', "i") > 0);
    EXPECT_GT(sd_bus_message_read_basic(reply, 'i', &value), 0);
    result.value = static_cast<std::uint64_t>(std::int64_t{value});
  }
  return result;
}

}  // namespace

bool awaitFile(const std::string& path, const std::function<bool()>& met) {
  const platform::UniqueFd watcher(inotify_init1(IN_CLOEXEC));
  EXPECT_GE(inotify_add_watch(watcher.get(), path.c_str(), IN_MODIFY), 0) << path;
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!met()) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd changed{watcher.get(), POLLIN, 0};
    if (poll(&changed, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0))) <= 0)
      return met();
    char events[4096];
    if (read(watcher.get(), events, sizeof events) < 0) return false;
  }
  return true;
}

PrivateBus::PrivateBus(const ScratchFolder& folder, const std::string& policies)
    : socket(folder / "bus") {
  unlink(socket.c_str());
  writeFile(folder / "bus.conf", busConfiguration(socket, policies));
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
  // Alone in its folder, which the daemon watches.
  std::filesystem::create_directory(folder / "etc");
  writeFile(folder / "etc/properties.conf", options.properties);
  writeFile(folder / "trace.conf", "baseseverity = " + std::to_string(options.baseSeverity) + "\n");
  // It is watched before the daemon has logged anything.
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
  Environment environment = options.environment;
  environment.insert(
      environment.end(),
      {preloadEntry(), "QS_TEST_SYSLOG=" + logFile, "QS_TEST_FILES=" + (folder / "files"),
       "DBUS_SYSTEM_BUS_ADDRESS=" + busAddress, "QUILLSPEAK_RUN_DIR=" + (folder / "run"),
       "QUILLSPEAK_AUDIO=" + audio, "QUILLSPEAK_PROPERTIES=" + (folder / "etc/properties.conf"),
       "QUILLSPEAK_TRACE=" + (folder / "trace.conf")});
  process = std::make_unique<ChildProcess>(program, arguments, environment);
}

#ifdef QUILLSPEAK_COVERAGE
// What is killed does not write down what it counted.
Daemon::~Daemon() {
  if (process->hasEnded()) return;
  signal(SIGTERM);
  process->wait();
}
#else
Daemon::~Daemon() = default;
#endif

int Daemon::exitStatus() {
  const int status = process->wait();
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

int Daemon::countLog(const std::string& part) const {
  std::ifstream file(logFile);
  int count = 0;
  for (std::string line; std::getline(file, line);)
    count += line.find(part) != std::string::npos ? 1 : 0;
  return count;
}

Client::Client(const std::string& busAddress) {
  sd_bus* raw = nullptr;
  EXPECT_GE(sd_bus_new(&raw), 0);
  connection.reset(raw);
  EXPECT_GE(sd_bus_set_address(raw, busAddress.c_str()), 0);
  EXPECT_GE(sd_bus_set_bus_client(raw, 1), 0);
  EXPECT_GE(sd_bus_set_method_call_timeout(raw, std::chrono::microseconds(kPatience).count()), 0);
  EXPECT_GE(sd_bus_start(raw), 0);
  EXPECT_GE(sd_bus_match_signal(raw, nullptr, nullptr, kPath, kInterface, "ReportTTSPlayResult",
                                onResult, this),
            0);
}

sd_bus_message* Client::newCall(const char* interface, const char* method) {
  sd_bus_message* call = nullptr;
  EXPECT_GE(sd_bus_message_new_method_call(bus(), &call, kService, kPath,
                                           *interface != '\0' ? interface : nullptr, method),
            0);
  return call;
}

Reply Client::finish(sd_bus_message* call) {
  sd_bus_error error{};
  sd_bus_message* reply = nullptr;
  const int status = sd_bus_call(bus(), call, 0, &error, &reply);
  Reply result = status >= 0 ? readReply(reply) : failure(error);
  sd_bus_error_free(&error);
  sd_bus_message_unref(reply);
  sd_bus_message_unref(call);
  return result;
}

Reply Client::play(const std::vector<std::string>& texts, std::int32_t flags, std::int32_t params,
                   std::int32_t type) {
  sd_bus_message* call = newCall(kInterface, "DoTTSAndPlay");
  sd_bus_message_open_container(call, 'a', "s");
  for (const std::string& text : texts)
    sd_bus_message_append_basic(call, 's', text.c_str());
  sd_bus_message_close_container(call);
  sd_bus_message_append(call, "iii", params, type, flags);
  return finish(call);
}

std::optional<std::int32_t> Client::property(const char* name) {
  const Reply reply = call(kProperties, "Get", "ss", kInterface, name);
  return reply.error.empty() ? std::optional(static_cast<std::int32_t>(reply.value)) : std::nullopt;
}

Reply Client::call(const char* interface, const char* method, const char* signature, ...) {
  sd_bus_message* message = newCall(interface, method);
  va_list arguments;
  va_start(arguments, signature);
  EXPECT_GE(sd_bus_message_appendv(message, signature, arguments), 0);
  va_end(arguments);
  return finish(message);
}

void Client::callLater(Answered answered, const char* method, const char* signature, ...) {
  sd_bus_message* message = newCall(kInterface, method);
  va_list arguments;
  va_start(arguments, signature);
  EXPECT_GE(sd_bus_message_appendv(message, signature, arguments), 0);
  va_end(arguments);
  const sd_bus_message_handler_t onReply = [](sd_bus_message* reply, void* call, sd_bus_error*) {
    (*static_cast<Answered*>(call))(readReply(reply));
    return 0;
  };
  later.push_back(std::move(answered));
  EXPECT_GE(sd_bus_call_async(bus(), nullptr, message, later.back() ? onReply : nullptr,
                              &later.back(), 0),
            0);
  sd_bus_message_unref(message);
  sd_bus_flush(bus());
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

std::optional<PlayResult> Client::result(std::uint64_t handle) const {
  const auto found = std::find_if(received.begin(), received.end(),
                                  [handle](const auto& one) { return one.handle == handle; });
  return found != received.end() ? std::optional(*found) : std::nullopt;
}

bool Client::isReported(std::int32_t type) const {
  return std::any_of(received.begin(), received.end(), [type](const auto& one) {
    return one.type == static_cast<std::uint32_t>(type);
  });
}

const std::vector<PlayResult>& Client::results() {
  // Whatever was sent before the answer to this has been received with it.
  nameOwned();
  while (sd_bus_process(bus(), nullptr) > 0) {
  }
  return received;
}

std::vector<std::int16_t> readWave(const std::string& path) {
  constexpr std::size_t kHeader = 44;
  const std::string file = readFile(path);
  if (file.size() <= kHeader) return {};
  std::vector<std::int16_t> samples((file.size() - kHeader) / sizeof(std::int16_t));
  std::memcpy(samples.data(), file.data() + kHeader, samples.size() * sizeof(std::int16_t));
  return samples;
}

std::string times(int count, const std::string& part) {
  std::string text;
  for (; count > 0; --count)
    text += part;
  return text;
}

void DaemonTest::writeAlert(std::size_t samples) const {
  const std::vector<std::int16_t> alert(samples, 8000);
  writeFile(folder / "files/error_mono.raw",
            std::string(reinterpret_cast<const char*>(alert.data()), alert.size() * 2));
}

}  // namespace test
