#include "latency_pulse.h"

#include <stdexcept>
#include <string>

#include "latency_timeline.h"

namespace bench {

namespace {

[[noreturn]] void fail(const char* what, pa_context* context) {
  throw std::runtime_error(std::string("sound server: ") + what + ": " +
                           pa_strerror(pa_context_errno(context)));
}

void wakeOnState(pa_context*, void* loop) {
  pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(loop), 0);
}

void wakeOnStreamState(pa_stream*, void* self) {
  static_cast<const PulseConnection*>(self)->wake();
}

struct Count {
  const PulseConnection* connection;
  int streams = 0;
};

void countStream(pa_context*, const pa_sink_input_info*, int end, void* into) {
  auto& count = *static_cast<Count*>(into);
  if (end == 0)
    ++count.streams;
  else
    count.connection->wake();
}

}  // namespace

PulseConnection::PulseConnection() : thread(pa_threaded_mainloop_new()) {
  server.reset(pa_context_new(pa_threaded_mainloop_get_api(loop()), "bench"));
  pa_context_set_state_callback(context(), wakeOnState, loop());
  pa_threaded_mainloop_start(loop());
  const PulseLock lock(*this);
  if (pa_context_connect(context(), nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
    fail("connect", context());
  while (pa_context_get_state(context()) != PA_CONTEXT_READY) {
    if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(context()))) fail("connect", context());
    pa_threaded_mainloop_wait(loop());
  }
}

PulseConnection::~PulseConnection() {
  {
    const PulseLock lock(*this);
    pa_context_set_state_callback(context(), nullptr, nullptr);
    server.reset();
  }
  pa_threaded_mainloop_stop(loop());
}

void PulseConnection::finish(pa_operation* operation) const {
  if (operation == nullptr) fail("operation", context());
  while (pa_operation_get_state(operation) == PA_OPERATION_RUNNING)
    pa_threaded_mainloop_wait(loop());
  pa_operation_unref(operation);
}

void PulseConnection::awaitReady(pa_stream* stream) const {
  while (pa_stream_get_state(stream) != PA_STREAM_READY) {
    if (!PA_STREAM_IS_GOOD(pa_stream_get_state(stream))) fail("stream", context());
    pa_threaded_mainloop_wait(loop());
  }
}

int PulseConnection::playingStreams() const {
  const PulseLock lock(*this);
  Count count{this};
  finish(pa_context_get_sink_input_info_list(context(), countStream, &count));
  return count.streams;
}

PulseStream newStream(const PulseConnection& connection, const char* name) {
  const pa_sample_spec format{PA_SAMPLE_S16LE, kRate, 1};
  PulseStream stream(pa_stream_new(connection.context(), name, &format, nullptr));
  if (stream == nullptr) fail("new stream", connection.context());
  pa_stream_set_state_callback(stream.get(), wakeOnStreamState,
                               const_cast<PulseConnection*>(&connection));
  return stream;
}

}  // namespace bench
