// The whole road behind the bus over a media server that fails: what the caller is told, what is
// logged, and that the next request is heard in time.

#include <syslog.h>

#include <climits>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/controller.h"
#include "core/interfaces/bus_release.h"
#include "media/media_interface.h"
#include "platform/clock.h"
#include "platform/media_server.h"
#include "playback/message_queue_thread.h"
#include "support/gate.h"
#include "support/scratch_folder.h"
#include "support/skipping_clock.h"
#include "support/syslog_capture.h"
#include "tts/speech_engine.h"

namespace {

using namespace std::chrono_literals;

/// What goes wrong, counted from 1 in calls of the function.
struct Fault {
  int startsFail = 0;
  int opensFail = 0;
  int firstBadWrite = INT_MAX;
  int lastBadWrite = INT_MAX;
  std::chrono::seconds block{0};  // in each bad write, before it fails
};

/// The telephone's, with faults. One thread at a time calls it.
struct MediaServer {
  Fault fault;
  int starts = 0;
  int opens = 0;
  int writes = 0;
  std::size_t bytes = 0;  // heard

  int write(unsigned int size) {
    ++writes;
    if (writes >= fault.firstBadWrite && writes <= fault.lastBadWrite) {
      platform::clock().sleepFor(fault.block);
      return -EIO;
    }
    bytes += size;
    return static_cast<int>(size);
  }
};

MediaServer server;

class Caller final : public qs_ns::QS_DBusBase {
 public:
  void reportPlayRequestResult(const std::vector<std::string>&, const unsigned&, const unsigned&,
                               const unsigned&, const unsigned& result, const void*) override {
    (result == 0 ? played : stopped).add();
  }
  test::Tally played, stopped;
};

/// A request that meets it is reported with 0, since nobody stops it, or dropped in silence.
struct Row {
  const char* what;
  Fault fault;
  std::map<const char*, int> errors;  // all that is logged as an error, and how often
  // 5 s for a start that fails, 50 ms for an open, 20 ms at the close, and what a write blocks.
  std::chrono::milliseconds waited;
};

const char* const kStart = "Error while initializing MS interface";
const char* const kNoServer = "initializeMSWithController: Could not intializeMSController";
const char* const kOpen = "Error in starting audio playback session";
const char* const kGaveUp = "startMsAudPlayback: failed to open audio playback session";
const char* const kDropped = "QS_MessageQueueThread: Error in startMsRTPSession()";
const char* const kClosed = "audio playback session stopped successfully";
const char* const kLost = "audio playback session lost (-5)";

const Row kRows[] = {
    {"start fails twice", {.startsFail = 2}, {{kStart, 2}}, 10020ms},
    {"start fails three times", {.startsFail = 3}, {{kStart, 3}, {kNoServer, 1}}, 15020ms},
    {"open fails twice", {.opensFail = 2}, {{kOpen, 2}}, 120ms},
    {"open fails", {.opensFail = INT_MAX}, {{kOpen, 3}, {kGaveUp, 1}, {kDropped, 1}}, 150ms},
    {"the first write fails", {.firstBadWrite = 1, .lastBadWrite = 1}, {{kLost, 1}}, 20ms},
    {"all writes fail from the ninth on", {.firstBadWrite = 9}, {{kLost, 1}}, 20ms},
    {"a write blocks", {.firstBadWrite = 9, .lastBadWrite = 9, .block = 1s}, {{kLost, 1}}, 1020ms},
};

struct Scene {
  Scene() {
    test::clearLog();
    // No list of phrases: what the builder waits for would move the time on.
    test::writeFile(folder / "properties.conf", "qs_cache = disable\n");
    setenv("QUILLSPEAK_PROPERTIES", (folder / "properties.conf").c_str(), 1);
    qs_ns::qs_flite_init();
  }
  ~Scene() { controller->cleanupController(); }
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;

  void start() {
    controller.emplace(&caller, &queue, &media);
    queue.setController(&*controller);
    queue.runThread();
    // Synthesised and dropped now, and nothing is cached later.
    EXPECT_TRUE(test::waitForLog("QS_CT:threadLoop: Number of phrases in cache:2"));
  }

  void play() { controller->playMediaFromText({"Settings"}, 0, 0, 0); }

  /// How much of a request is heard where nothing fails.
  std::size_t playWhole() {
    server = {};
    const int before = test::countLog(kClosed);
    play();
    EXPECT_TRUE(test::waitForLog(kClosed, before + 1));
    return server.bytes;
  }

  test::ScratchFolder folder;
  test::SkippingClock clock;
  Caller caller;
  qs_ns::QS_MessageQueueThread queue;
  qs_ns::QS_MediaInterface media;
  std::optional<qs_ns::QS_Controller> controller;
};

TEST(MediaFaults, AreLoggedOnceAndTheNextRequestIsHeard) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.what);
    Scene scene;
    const auto begun = scene.clock.now();
    server = {row.fault};
    scene.start();
    const int reports = row.errors.count(kDropped) == 0 ? 1 : 0;
    scene.play();
    EXPECT_TRUE(test::waitForLog(reports == 1 ? kClosed : kDropped));
    EXPECT_EQ(scene.clock.now() - begun, row.waited);
    EXPECT_EQ(scene.caller.played.value(), reports);
    int errors = 0;
    for (const auto& [line, count] : row.errors) {
      EXPECT_EQ(test::countLog(line, LOG_ERR), count) << line;
      errors += count;
    }
    EXPECT_EQ(test::countLog("", LOG_ERR), errors);

    const auto gone = scene.clock.now();
    const std::size_t heard = scene.playWhole();
    EXPECT_LE(scene.clock.now() - gone, 1s);
    EXPECT_EQ(test::countLog("", LOG_ERR), errors) << "the next one meets no fault";
    EXPECT_EQ(heard, scene.playWhole());
    EXPECT_GT(heard, 2U * 48000 / 4);
    EXPECT_EQ(scene.caller.played.value(), reports + 2);
    EXPECT_EQ(scene.caller.stopped.value(), 0);
  }
}

}  // namespace

void qs_ns::qs_disconnectDBus() {}

// One line each: most are of no interest here.
// clang-format off
int ms_start() { return ++server.starts <= server.fault.startsFail ? -1 : 0; }
int ms_stop() { return 0; }
int ms_openAudPlayback(int) { return ++server.opens <= server.fault.opensFail ? 0 : 7; }
int ms_sendDataToAudPlayback(int, const void*, unsigned int bytes) { return server.write(bytes); }
int ms_closeAudPlayback(int) { return 0; }
int ms_dropAudPlayback(int) {
  return 0;
}
int ms_setOutputAudioPath(int, int) { return 0; }
int ms_createToneSession(int) { return -1; }
int ms_realizeSession(int) { return -1; }
int ms_allocateSession(int) { return -1; }
int ms_startTone(int, int, int) { return -1; }
int ms_stopSession(int) { return 0; }
int ms_closeSession(int) { return 0; }
// clang-format on
