#pragma once

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include "support/child_process.h"
#include "support/scratch_folder.h"

namespace test {

/// Do sanitizers slow the daemon down?
#ifdef QUILLSPEAK_SLOW_BUILD
inline constexpr bool kSlowBuild = true;
#else
inline constexpr bool kSlowBuild = false;
#endif

inline constexpr char kService[] = "com.wexel.Quillspeak";
inline constexpr char kPath[] = "/com/wexel/Quillspeak";
inline constexpr char kInterface[] = "com.wexel.QuillspeakInterface1";
inline constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
inline constexpr char kLimitsExceeded[] = "org.freedesktop.DBus.Error.LimitsExceeded";

inline constexpr char kEnabled[] = "device.accessibility.qs_enabled = true\n";
inline constexpr char kWithAutomation[] =
    "device.accessibility.qs_enabled = true\ndevice.feature.dbus-automation = 1\n";

/// For what is not measured: only a daemon that hangs makes a test wait that long.
inline constexpr std::chrono::seconds kPatience{kSlowBuild ? 90 : 30};

/// Blocks until `met` holds, asking after each change of the file, which has to be there; false
/// where patience ends.
bool awaitFile(const std::string& path, const std::function<bool()>& met);

/// A message bus of the test's own, with a socket in `folder`.
class PrivateBus {
 public:
  /// With `policies` as the bus's configuration has them.
  explicit PrivateBus(const ScratchFolder& folder, const std::string& policies = kEverything);

  std::string address() const { return "unix:path=" + socket; }
  void kill();

  /// Everybody may do everything and see it all.
  static constexpr char kEverything[] =
      "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
      "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy>";

 private:
  std::string socket;
  std::unique_ptr<ChildProcess> process;
};

/// The daemon as a process: its own run directory and property file, its log in a file, its fixed
/// paths in the folder "files", its sound in "sound.wav" where nothing else is said.
class Daemon {
 public:
  struct Options {
    std::string properties = kEnabled;
    std::string audio{};
    std::vector<std::string> arguments{};
    /// Does it find its standard output full, so that it has to wait for a reader?
    bool outputFull = false;
    /// Added to its environment.
    Environment environment{};
    /// The highest level that it logs. The debug level, which is off by itself, shows what tests
    /// look for.
    int baseSeverity = 7;
  };

  Daemon(const ScratchFolder& folder, const std::string& busAddress, const Options& options);

  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  pid_t id() const { return process->id(); }
  void signal(int number) const { kill(process->id(), number); }
  /// Waits for the end; the exit status, or -N where it died of signal N.
  int exitStatus();
  std::string output() { return process->readAll(); }

  /// How many lines of the log hold `part`?
  int countLog(const std::string& part) const;
  /// Blocks until `count` of them do; false where patience ends.
  bool waitForLog(const std::string& part, int count = 1) const {
    return awaitFile(logFile, [&] { return countLog(part) >= count; });
  }

 private:
  std::string logFile;
  std::unique_ptr<ChildProcess> process;
};

/// What a method call was answered with: a number or a text ("name=number;" for each of a
/// dictionary), or an error's name and message.
struct Reply {
  std::uint64_t value = 0;
  std::string text{};
  std::string error{};
  std::string message{};
};

struct PlayResult {
  std::vector<std::string> texts;
  std::uint32_t params = 0;
  std::uint32_t type = 0;
  std::uint32_t flags = 0;
  std::uint32_t resultCode = 0;
  std::uint64_t handle = 0;
};

/// A client of the daemon on a connection of its own, in the order of what it receives.
class Client {
 public:
  using Answered = std::function<void(const Reply&)>;

  explicit Client(const std::string& busAddress);

  /// Takes in what comes until `done` holds; false where that takes longer than `limit`.
  template <typename Done>
  bool until(Done done, std::chrono::microseconds limit = kPatience) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      while (sd_bus_process(bus(), nullptr) > 0) {
      }
      if (done()) return true;
      const auto left =
          std::chrono::ceil<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      // Not all that is waited for comes over the bus.
      sd_bus_wait(bus(), static_cast<std::uint64_t>(std::min<std::int64_t>(left.count(), 10'000)));
    }
  }
  void listen(std::chrono::milliseconds time) {
    until([] { return false; }, time);
  }

  bool nameOwned() { return sd_bus_get_name_creds(bus(), kService, 0, nullptr) >= 0; }
  /// Blocks until somebody owns the daemon's name (or nobody does), for the 20 s of its pause too.
  bool awaitName(bool owned = true) {
    return until([&] { return nameOwned() == owned; }, kPatience + std::chrono::seconds(20));
  }

  Reply play(const std::vector<std::string>& texts, std::int32_t flags = 0, std::int32_t params = 0,
             std::int32_t type = 0);
  Reply stop(std::uint64_t handle) { return call(kInterface, "StopTTSPlay", "tii", handle, 0, 0); }
  Reply reload(std::int32_t flags) { return call(kInterface, "ReloadConfig", "i", flags); }
  Reply setVolume(std::int32_t volume) { return call(kInterface, "SetVolume", "i", volume); }
  Reply fetch(const std::string& text, const std::string& path) {
    return call(kInterface, "DoTTSFetchInFile", "ss", text.c_str(), path.c_str());
  }
  /// Starts a conversion without waiting; `awaitFetched` gives the answers in their order.
  void fetchLater(const std::string& text, const std::string& path) {
    callLater([this](const Reply& reply) { fetched.push_back(reply); }, "DoTTSFetchInFile", "ss",
              text.c_str(), path.c_str());
  }
  std::vector<Reply> awaitFetched(std::size_t count) {
    until([&] { return fetched.size() >= count; });
    return fetched;
  }

  /// A property of the daemon's interface; nothing where it could not be read.
  std::optional<std::int32_t> property(const char* name);
  /// A call of any interface ("" for none) and method with `signature` and arguments.
  Reply call(const char* interface, const char* method, const char* signature = "", ...);
  /// The same of the daemon's interface without waiting: `answered` runs when the reply is taken
  /// in; without that no reply is asked for.
  void callLater(Answered answered, const char* method, const char* signature, ...);

  /// Has a request that was sent with that `type` been reported? Unlike handles, which are given
  /// out again, types are the client's own. Looks only at what was taken in already.
  bool isReported(std::int32_t type) const;
  /// That request's result. Looks only at what was taken in already.
  std::optional<PlayResult> result(std::uint64_t handle) const;
  /// Waits for it; nothing where patience ends.
  std::optional<PlayResult> awaitResult(std::uint64_t handle) {
    until([&] { return result(handle).has_value(); });
    return result(handle);
  }
  /// All results that were sent before.
  const std::vector<PlayResult>& results();

  sd_bus* bus() { return connection.get(); }

 private:
  struct Close {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  };

  static int onResult(sd_bus_message* message, void* self, sd_bus_error* error);
  sd_bus_message* newCall(const char* interface, const char* method);
  Reply finish(sd_bus_message* call);

  std::deque<Answered> later;  // those that wait for an answer and those that had it
  std::vector<PlayResult> received;
  std::vector<Reply> fetched;
  std::unique_ptr<sd_bus, Close> connection;
};

/// The samples of the wave file at `path`; none where there is no such file.
std::vector<std::int16_t> readWave(const std::string& path);

std::string times(int count, const std::string& part);

/// Longer than any test waits for it to be spoken.
inline std::string longText() {
  return times(60, "the quick brown fox jumps over the lazy dog ");
}

/// A bus, the daemon on it and one client, all new for each case.
class DaemonTest : public testing::Test {
 protected:
  /// With a new log, and without waiting for the name.
  void launch(const Daemon::Options& options = {}) {
    daemon.reset();  // or its last words might be in the new log
    std::filesystem::remove(folder / "log");
    daemon.emplace(folder, bus.address(), options);
  }
  void start(const Daemon::Options& options = {}) {
    launch(options);
    client.emplace(bus.address());
    ASSERT_TRUE(client->awaitName());
  }

  /// Plays, waits for the result and returns it.
  std::optional<std::uint32_t> playToEnd(const std::vector<std::string>& texts,
                                         std::int32_t flags = 0) {
    const Reply reply = client->play(texts, flags);
    EXPECT_EQ(reply.error, "");
    return resultOf(reply.value);
  }
  std::optional<std::uint32_t> resultOf(std::uint64_t handle) {
    const auto result = client->awaitResult(handle);
    return result.has_value() ? std::optional(result->resultCode) : std::nullopt;
  }

  /// An alert of so many samples, all of them 8000.
  void writeAlert(std::size_t samples) const;

  void setProperties(const std::string& text) {
    writeFile(folder / "properties.new", text);
    std::filesystem::rename(folder / "properties.new", folder / "etc/properties.conf");
  }

  /// The daemon was told to go, and does within a second, with that status.
  void expectEnd(int status) {
    const auto asked = std::chrono::steady_clock::now();
    EXPECT_EQ(daemon->exitStatus(), status);
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(kSlowBuild ? 2 : 1));
    EXPECT_FALSE(std::filesystem::exists(folder / "run/quillspeak-daemon.pid"));
  }

  ScratchFolder folder;
  PrivateBus bus{folder};
  std::optional<Daemon> daemon;
  std::optional<Client> client;
};

}  // namespace test
