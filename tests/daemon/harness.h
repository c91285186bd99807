#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <systemd/sd-bus.h>

#include "support/child_process.h"
#include "support/scratch_folder.h"

namespace test {

/// A message bus of the test's own, with a socket in `folder`.
class PrivateBus {
 public:
  explicit PrivateBus(const ScratchFolder& folder);

  std::string address() const { return "unix:path=" + socket; }
  void kill();

 private:
  std::string socket;
  std::unique_ptr<ChildProcess> process;
};

/// The daemon as a process: its own run directory and property file, its log in a file, its fixed
/// paths in the folder "files", its sound in "sound.wav" where nothing else is said.
class Daemon {
 public:
  struct Options {
    std::string properties = "device.accessibility.qs_enabled = true\n";
    std::string audio{};
    std::vector<std::string> arguments{};
    /// Does it find its standard output full, so that it has to wait for a reader?
    bool outputFull = false;
  };

  Daemon(const ScratchFolder& folder, const std::string& busAddress, const Options& options);

  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  pid_t id() const { return process->id(); }
  void signal(int number) const;
  /// Waits for the end; the exit status, or -N where it died of signal N.
  int exitStatus();
  std::string output() { return process->readAll(); }

  std::vector<std::string> log() const;
  int countLog(const std::string& part) const;
  /// Blocks until `count` lines of the log hold `part`; false after 30 s.
  bool waitForLog(const std::string& part, int count = 1) const;

 private:
  std::string logFile;
  std::unique_ptr<ChildProcess> process;
};

/// What a method call was answered with: a value, or an error's name and text.
struct Reply {
  std::uint64_t value = 0;
  std::string error;
  std::string message;
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
  explicit Client(const std::string& busAddress);

  /// Blocks until somebody owns the daemon's name (or nobody does); fails the test after 40 s.
  bool awaitName(bool owned = true);
  bool nameOwned();

  Reply play(const std::vector<std::string>& texts, std::int32_t flags = 0, std::int32_t params = 0,
             std::int32_t type = 0);
  Reply stop(std::uint64_t handle);
  Reply reload(std::int32_t flags);
  Reply setVolume(std::int32_t volume);
  Reply fetch(const std::string& text, const std::string& path);
  /// Starts a conversion without waiting; `awaitFetched` gives the answers in their order.
  void fetchLater(const std::string& text, const std::string& path);
  std::vector<Reply> awaitFetched(std::size_t count);

  /// A property of the daemon's interface; nothing where it could not be read.
  std::optional<std::int32_t> property(const std::string& name);
  /// A call of any interface ("" for none) and method with `signature` and arguments.
  Reply call(const char* interface, const char* method, const char* signature = "", ...);
  std::string introspect();

  /// Takes in what comes, for so long.
  void listen(std::chrono::milliseconds time);
  /// Waits for the result of that request; nothing after 30 s.
  std::optional<PlayResult> awaitResult(std::uint64_t handle);
  /// Waits until so many results have come; false after 30 s.
  bool awaitResults(std::size_t count);
  /// Has that request's result been received? Looks only at what was taken in already.
  bool hasResult(std::uint64_t handle) const;
  /// All results so far.
  const std::vector<PlayResult>& results();

  sd_bus* bus() { return connection.get(); }

 private:
  struct Close {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  };

  static int onResult(sd_bus_message* message, void* self, sd_bus_error* error);
  static int onFetched(sd_bus_message* message, void* self, sd_bus_error* error);
  Reply finish(sd_bus_message* call, const char* resultType);
  template <typename Done>
  bool processUntil(Done done, std::chrono::milliseconds limit);

  std::unique_ptr<sd_bus, Close> connection;
  std::vector<PlayResult> received;
  std::vector<Reply> fetched;
};

/// Blocks until `done()` holds, asking after each change of the file; false after 30 s.
bool waitForFile(const std::string& path, const std::function<bool()>& done);

/// The samples of a recording, once its header and size agree.
std::vector<std::int16_t> readRecording(const std::string& path);

}  // namespace test
