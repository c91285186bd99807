#include "play_call.h"

#include <sys/inotify.h>

#include <cstring>
#include <filesystem>
#include <utility>

#include "recording.h"

namespace {

using std::chrono::microseconds;
using std::chrono::seconds;
using namespace std::chrono_literals;

constexpr const char* kService = "com.wexel.Quillspeak";
constexpr const char* kObject = "/com/wexel/Quillspeak";
constexpr const char* kInterface = "com.wexel.QuillspeakInterface1";
constexpr const char* kBus = "org.freedesktop.DBus";

// What a sound device and a sound server still hold when the last frame has been handed over.
// Nothing on the bus tells when it has been heard.
constexpr microseconds kTailInDevice = 300ms;

using Message = std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)>;

PlayCall& callOf(void* self) {
  return *static_cast<PlayCall*>(self);
}

std::string errorOf(sd_bus_message* reply) {
  const sd_bus_error* error = sd_bus_message_get_error(reply);
  return std::string(error->name) + (error->message ? std::string(": ") + error->message : "");
}

}  // namespace

PlayCall::PlayCall(PlayRequest toPlay, std::string recording)
    : request(std::move(toPlay)), recordingPath(std::move(recording)) {}

bool PlayCall::run() {
  return connect() && subscribe() && watchRecording() && waitForDaemon() &&
         succeeded(sd_event_loop(event.get()), "wait for the daemon") && failure.empty();
}

std::optional<std::chrono::duration<double>> PlayCall::untilRecordingGrew() const {
  if (!growMoment) return std::nullopt;
  return *growMoment - callMoment;
}

bool PlayCall::succeeded(int status, const char* doing) {
  if (status < 0) fail(std::string("cannot ") + doing + ": " + std::strerror(-status));
  return status >= 0;
}

void PlayCall::fail(std::string reason) {
  if (failure.empty()) failure = std::move(reason);
  if (event) sd_event_exit(event.get(), 0);
}

bool PlayCall::connect() {
  sd_event* newEvent = nullptr;
  if (!succeeded(sd_event_new(&newEvent), "make an event loop")) return false;
  event.reset(newEvent);
  sd_bus* newBus = nullptr;
  if (!succeeded(sd_bus_open_system(&newBus), "connect to the bus")) return false;
  bus.reset(newBus);
  return succeeded(sd_bus_attach_event(newBus, newEvent, SD_EVENT_PRIORITY_NORMAL),
                   "listen to the bus");
}

bool PlayCall::subscribe() {
  const std::string ownerChanged =
      std::string("type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='") +
      kService + "'";
  return succeeded(sd_bus_add_match(bus.get(), nullptr, ownerChanged.c_str(), onOwnerChanged, this),
                   "watch for the daemon") &&
         succeeded(sd_bus_match_signal(bus.get(), nullptr, kService, kObject, kInterface,
                                       "ReportTTSPlayResult", onResult, this),
                   "watch for the result");
}

bool PlayCall::watchRecording() {
  if (recordingPath.empty()) return true;
  const auto folder = std::filesystem::absolute(recordingPath).parent_path();
  sd_event_source* source = nullptr;
  const int status = sd_event_add_inotify(event.get(), &source, folder.c_str(),
                                          IN_CREATE | IN_MODIFY, onFileChanged, this);
  fileWatch.reset(source);
  return succeeded(status, "watch the recording's folder");
}

bool PlayCall::waitForDaemon() {
  setTimer(10s, "the daemon did not take its name on the bus within 10 s");
  return succeeded(sd_bus_call_method_async(bus.get(), nullptr, kBus, "/org/freedesktop/DBus", kBus,
                                            "NameHasOwner", onHasOwner, this, "s", kService),
                   "ask for the daemon");
}

void PlayCall::call() {
  if (std::exchange(called, true)) return;
  sd_bus_message* newMessage = nullptr;
  const int made = sd_bus_message_new_method_call(bus.get(), &newMessage, kService, kObject,
                                                  kInterface, "DoTTSAndPlay");
  const Message message(newMessage, sd_bus_message_unref);
  if (!succeeded(made, "make the call")) return;

  int packed = sd_bus_message_open_container(newMessage, 'a', "s");
  for (const std::string& text : request.texts) {
    if (packed >= 0) packed = sd_bus_message_append_basic(newMessage, 's', text.c_str());
  }
  if (packed >= 0) packed = sd_bus_message_close_container(newMessage);
  if (packed >= 0) {
    packed = sd_bus_message_append(newMessage, "iii", request.params, 0, request.flags);
  }
  // The bus carries nothing but UTF-8.
  if (!succeeded(packed, "send this text (is it UTF-8?)")) return;

  setTimer(10s, "the daemon did not answer the call within 10 s");
  callMoment = Clock::now();
  calledBySystemClock = std::chrono::system_clock::now();
  succeeded(sd_bus_call_async(bus.get(), nullptr, newMessage, onHandle, this, 0), "send the call");
}

void PlayCall::finish() {
  if (recordingPath.empty()) {
    setTimer(kTailInDevice, nullptr);
    return;
  }
  setTimer(2s, "the result came, but no whole recording within 2 s of it");
  finishIfRecordingIsWhole();
}

// The result is reported just before the session is closed, and only then the header is right.
void PlayCall::finishIfRecordingIsWhole() {
  const auto recording = Recording::read(recordingPath);
  if (recording && recording->headerIsCorrect()) sd_event_exit(event.get(), 0);
}

void PlayCall::setTimer(microseconds delay, const char* failureThen) {
  timerFailure = failureThen;
  sd_event_source* source = nullptr;
  const int status =
      sd_event_add_time_relative(event.get(), &source, CLOCK_MONOTONIC,
                                 static_cast<std::uint64_t>(delay.count()), 0, onTimer, this);
  timer.reset(source);
  succeeded(status, "set a timer");
}

// No character makes a second of speech, even at the slowest speed. A limit is needed, since the
// daemon drops a request for which no device opens without reporting a result.
seconds PlayCall::longestPlay() const {
  std::size_t characters = 0;
  for (const std::string& text : request.texts)
    characters += text.size();
  return 20s + seconds(characters);
}

int PlayCall::onOwnerChanged(sd_bus_message* message, void* self, sd_bus_error*) {
  const char* name = nullptr;
  const char* before = nullptr;
  const char* after = nullptr;
  const int status = sd_bus_message_read(message, "sss", &name, &before, &after);
  if (status < 0) return status;
  if (*after != '\0')
    callOf(self).call();
  else
    callOf(self).fail("the daemon has left the bus");
  return 0;
}

int PlayCall::onHasOwner(sd_bus_message* reply, void* self, sd_bus_error*) {
  int hasOwner = 0;
  const int status = sd_bus_message_read(reply, "b", &hasOwner);
  if (callOf(self).succeeded(status, "ask for the daemon") && hasOwner != 0) callOf(self).call();
  return 0;
}

int PlayCall::onHandle(sd_bus_message* reply, void* self, sd_bus_error*) {
  PlayCall& play = callOf(self);
  if (sd_bus_message_is_method_error(reply, nullptr) > 0) {
    play.fail("the daemon answered " + errorOf(reply));
    return 0;
  }
  const int status = sd_bus_message_read(reply, "t", &play.handleGiven);
  if (!play.succeeded(status, "read the handle")) return 0;
  if (play.handleGiven == 0) {
    play.fail("the daemon refused the request: there is nothing to speak in it");
  } else {
    play.setTimer(play.longestPlay(),
                  "no result came in the time that the longest speech would take: most likely the "
                  "sound device did not open; the daemon's messages are in the system log");
  }
  return 0;
}

int PlayCall::onResult(sd_bus_message* signal, void* self, sd_bus_error*) {
  PlayCall& play = callOf(self);
  std::uint32_t result = 0;
  std::uint64_t handle = 0;
  int status = sd_bus_message_skip(signal, "asuuu");
  if (status >= 0) status = sd_bus_message_read(signal, "ut", &result, &handle);
  if (!play.succeeded(status, "read the result")) return 0;
  if (handle == 0 || handle != play.handleGiven || play.resultReported) return 0;
  play.resultReported = result;
  play.finish();
  return 0;
}

int PlayCall::onFileChanged(sd_event_source*, const inotify_event* change, void* self) {
  PlayCall& play = callOf(self);
  const std::filesystem::path path = play.recordingPath;
  if (change->len == 0 || path.filename() != change->name) return 0;
  std::error_code missing;
  const auto bytes = std::filesystem::file_size(path, missing);
  if (!play.growMoment && !missing && bytes > Recording::kHeaderBytes) {
    play.growMoment = Clock::now();
  }
  if (play.resultReported) play.finishIfRecordingIsWhole();
  return 0;
}

int PlayCall::onTimer(sd_event_source*, std::uint64_t, void* self) {
  PlayCall& play = callOf(self);
  if (play.timerFailure != nullptr) {
    play.fail(play.timerFailure);
  } else {
    sd_event_exit(play.event.get(), 0);
  }
  return 0;
}
