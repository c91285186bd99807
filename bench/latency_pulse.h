#pragma once

#include <pulse/pulseaudio.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

namespace bench {

/// A connection to the sound server of $PULSE_SERVER, with the library's thread, on which every
/// callback runs. Failures throw std::runtime_error.
class PulseConnection {
 public:
  PulseConnection();
  ~PulseConnection();
  PulseConnection(const PulseConnection&) = delete;
  PulseConnection& operator=(const PulseConnection&) = delete;

  pa_context* context() const { return server.get(); }
  pa_threaded_mainloop* loop() const { return thread.get(); }
  /// Blocks until the operation is over. PulseLock held; takes the operation.
  void finish(pa_operation* operation) const;
  /// Blocks until the stream is connected. PulseLock held.
  void awaitReady(pa_stream* stream) const;

  /// How many streams play at the server.
  int playingStreams() const;

  /// Wakes whoever waits in `finish` or `awaitReady`. For callbacks.
  void wake() const { pa_threaded_mainloop_signal(loop(), 0); }

 private:
  struct Release {
    void operator()(pa_threaded_mainloop* freed) const { pa_threaded_mainloop_free(freed); }
    void operator()(pa_context* freed) const {
      pa_context_disconnect(freed);
      pa_context_unref(freed);
    }
  };

  std::unique_ptr<pa_threaded_mainloop, Release> thread;
  std::unique_ptr<pa_context, Release> server;
};

/// Keeps the library's thread out; not on that thread itself.
class PulseLock {
 public:
  explicit PulseLock(const PulseConnection& locked) : loop(locked.loop()) {
    pa_threaded_mainloop_lock(loop);
  }
  ~PulseLock() { pa_threaded_mainloop_unlock(loop); }
  PulseLock(const PulseLock&) = delete;
  PulseLock& operator=(const PulseLock&) = delete;

 private:
  pa_threaded_mainloop* loop;
};

struct ReleaseStream {
  void operator()(pa_stream* freed) const {
    pa_stream_set_read_callback(freed, nullptr, nullptr);
    pa_stream_set_state_callback(freed, nullptr, nullptr);
    pa_stream_disconnect(freed);
    pa_stream_unref(freed);
  }
};
/// Made and released with the PulseLock held.
using PulseStream = std::unique_ptr<pa_stream, ReleaseStream>;

/// A stream, not connected yet, of mono signed 16-bit samples at 48,000. PulseLock held.
PulseStream newStream(const PulseConnection& connection, const char* name);

}  // namespace bench
