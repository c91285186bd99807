#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

struct inotify_event;

struct PlayRequest {
  std::int32_t params = 0;
  std::int32_t flags = 0;
  std::vector<std::string> texts;
};

/// One request to speak, from the wait for the daemon to the result that it reports. One thread.
class PlayCall {
 public:
  using Clock = std::chrono::steady_clock;

  /// `recording` is the file that the daemon is going to write; empty where there is none. Its
  /// folder must exist.
  PlayCall(PlayRequest toPlay, std::string recording);

  /// Waits for the daemon on the system bus, makes the call and waits until the daemon has reported
  /// its result and the sound has ended. Blocks; false on failure, for the reason in `error()`.
  bool run();
  const std::string& error() const { return failure; }

  std::uint64_t handle() const { return handleGiven; }
  std::uint32_t result() const { return resultReported.value_or(0); }
  /// By the system's clock, to be held against a moment that another process took.
  std::chrono::system_clock::time_point calledAt() const { return calledBySystemClock; }
  /// From the call to the moment when the recording got its first sample; nothing if it has none.
  std::optional<std::chrono::duration<double>> untilRecordingGrew() const;

 private:
  struct Release {
    void operator()(sd_event* loop) const { sd_event_unref(loop); }
    void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
    void operator()(sd_bus* connection) const { sd_bus_flush_close_unref(connection); }
  };

  bool succeeded(int status, const char* doing);
  void fail(std::string reason);
  bool connect();
  bool subscribe();
  bool watchRecording();
  bool waitForDaemon();
  void call();
  void finish();
  void finishIfRecordingIsWhole();
  void setTimer(std::chrono::microseconds delay, const char* failureThen);
  std::chrono::seconds longestPlay() const;

  static int onOwnerChanged(sd_bus_message* message, void* self, sd_bus_error*);
  static int onHasOwner(sd_bus_message* reply, void* self, sd_bus_error*);
  static int onHandle(sd_bus_message* reply, void* self, sd_bus_error*);
  static int onResult(sd_bus_message* signal, void* self, sd_bus_error*);
  static int onFileChanged(sd_event_source*, const inotify_event* change, void* self);
  static int onTimer(sd_event_source*, std::uint64_t, void* self);

  const PlayRequest request;
  const std::string recordingPath;

  std::unique_ptr<sd_event, Release> event;
  std::unique_ptr<sd_event_source, Release> timer;
  std::unique_ptr<sd_event_source, Release> fileWatch;
  std::unique_ptr<sd_bus, Release> bus;

  // What the timer's end means; null: all is well, and the wait is over.
  const char* timerFailure = nullptr;
  std::string failure;
  bool called = false;
  Clock::time_point callMoment;
  std::chrono::system_clock::time_point calledBySystemClock;
  std::optional<Clock::time_point> growMoment;
  std::uint64_t handleGiven = 0;
  std::optional<std::uint32_t> resultReported;
};
