// The whole road behind the bus over a media server that fails: what the caller is told, what is
// logged, and that the next request is heard in time.

#include <syslog.h>

#include <climits>
#include <cstdlib>
#include <map>
#include <mutex>
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
  std::chrono::seconds writeBlocks{0};  // each bad one, before it fails
};

/// The telephone's, with faults.
class MediaServer {
 public:
  void failWith(const Fault& next) {
    const std::lock_guard lock(mutex);
    fault = next;
    starts = opens = writes = 0;
    bytes = 0;
  }
  int start() {
    const std::lock_guard lock(mutex);
    return ++starts <= fault.startsFail ? -1 : 0;
  }
  int open() {
    const std::lock_guard lock(mutex);
    return ++opens <= fault.opensFail ? 0 : 7;
  }
  int write(unsigned int size) {
    const std::lock_guard lock(mutex);
    ++writes;
    if (writes >= fault.firstBadWrite && writes <= fault.lastBadWrite) {
      platform::clock().sleepFor(fault.writeBlocks);
      return -EIO;
    }
    bytes += size;
    return static_cast<int>(size);
  }
  /// Taken since the last `failWith`.
  std::size_t bytesHeard() const {
    const std::lock_guard lock(mutex);
    return bytes;
  }

 private:
  mutable std::mutex mutex;
  Fault fault;
  int starts = 0;
  int opens = 0;
  int writes = 0;
  std::size_t bytes = 0;
};

MediaServer server;

class Caller final : public qs_ns::QS_DBusBase {
 public:
  void reportPlayRequestResult(const std::vector<std::string>&, const unsigned&, const unsigned&,
                               const unsigned&, const unsigned& result, const void*) override {
    {
      const std::lock_guard lock(mutex);
      told.push_back(result);
    }
    reports.add();
  }
  std::vector<unsigned> results() const {
    const std::lock_guard lock(mutex);
    return told;
  }
  test::Tally reports;

 private:
  mutable std::mutex mutex;
  std::vector<unsigned> told;
};

struct Row {
  const char* what;
  Fault fault;
  bool reported;  // the request that meets the fault; with 0, since nobody stops it
  std::map<const char*, int> errors;  // all that is logged as an error, and how often
  std::chrono::milliseconds limit;    // from the end of the fault until the next request is heard
};

std::ostream& operator<<(std::ostream& out, const Row& row) {
  return out << row.what;
}

const char* const kStart = "Error while initializing MS interface";
const char* const kNoServer = "initializeMSWithController: Could not intializeMSController";
const char* const kOpen = "Error in starting audio playback session";
const char* const kGaveUp = "startMsAudPlayback: failed to open audio playback session";
const char* const kDropped = "QS_MessageQueueThread: Error in startMsRTPSession()";
const char* const kLost = "audio playback session lost (-5)";

const Row kRows[] = {
    {"start fails once", {.startsFail = 1}, true, {{kStart, 1}}, 1s},
    {"start fails twice", {.startsFail = 2}, true, {{kStart, 2}}, 1s},
    {"start fails three times", {.startsFail = 3}, true, {{kStart, 3}, {kNoServer, 1}}, 1s},
    {"open fails once", {.opensFail = 1}, true, {{kOpen, 1}}, 1s},
    {"open fails twice", {.opensFail = 2}, true, {{kOpen, 2}}, 1s},
    {"open fails three times",
     {.opensFail = 3},
     false,
     {{kOpen, 3}, {kGaveUp, 1}, {kDropped, 1}},
     2500ms},
    {"open fails for ever",
     {.opensFail = INT_MAX},
     false,
     {{kOpen, 3}, {kGaveUp, 1}, {kDropped, 1}},
     2500ms},
    {"the first write fails", {.firstBadWrite = 1, .lastBadWrite = 1}, true, {{kLost, 1}}, 1s},
    {"one write fails", {.firstBadWrite = 9, .lastBadWrite = 9}, true, {{kLost, 1}}, 1s},
    {"all writes fail from the ninth on", {.firstBadWrite = 9}, true, {{kLost, 1}}, 1s},
    {"a write blocks for its whole limit",
     {.firstBadWrite = 9, .lastBadWrite = 9, .writeBlocks = 1s},
     true,
     {{kLost, 1}},
     1s},
};

class MediaFaults : public testing::TestWithParam<Row> {
 protected:
  MediaFaults() {
    test::clearLog();
    // No list of phrases: what the builder waits for would move the time on.
    test::writeFile(folder / "properties.conf", "qs_cache = disable\n");
    setenv("QUILLSPEAK_PROPERTIES", (folder / "properties.conf").c_str(), 1);
    qs_ns::qs_flite_init();
  }
  ~MediaFaults() override {
    if (controller.has_value()) controller->cleanupController();
  }

  void start() {
    controller.emplace(&caller, &queue, &media);
    queue.setController(&*controller);
    queue.runThread();
    // Synthesised and dropped now, and nothing is cached later.
    ASSERT_TRUE(test::waitForLog("QS_CT:threadLoop: Number of phrases in cache:2"));
  }

  std::uint64_t play() { return controller->playMediaFromText({"Settings"}, 0, 0, 0); }

  /// How much of a request is heard where nothing fails.
  std::size_t playWhole() {
    server.failWith({});
    const int before = caller.reports.value();
    play();
    caller.reports.await(before + 1);
    EXPECT_EQ(caller.results().back(), 0U);
    return server.bytesHeard();
  }

  test::ScratchFolder folder;
  test::SkippingClock clock;
  Caller caller;
  qs_ns::QS_MessageQueueThread queue;
  qs_ns::QS_MediaInterface media;
  std::optional<qs_ns::QS_Controller> controller;
};

TEST_P(MediaFaults, AreLoggedOnceAndTheNextRequestIsHeard) {
  const Row& row = GetParam();
  server.failWith(row.fault);
  start();
  play();
  if (row.reported) {
    caller.reports.await(1);
  } else {
    ASSERT_TRUE(test::waitForLog(kDropped));
  }
  EXPECT_EQ(caller.results(), std::vector<unsigned>(row.reported ? 1 : 0, 0U));
  int errors = 0;
  for (const auto& [line, count] : row.errors) {
    EXPECT_EQ(test::countLog(line, LOG_ERR), count) << line;
    errors += count;
  }
  EXPECT_EQ(test::countLog("", LOG_ERR), errors);

  const auto gone = clock.now();
  const std::size_t after = playWhole();
  EXPECT_LE(clock.now() - gone, row.limit);
  EXPECT_EQ(test::countLog("", LOG_ERR), errors) << "the next one meets no fault";
  EXPECT_EQ(after, playWhole());
  EXPECT_GT(after, 2U * 48000 / 4);
}

INSTANTIATE_TEST_SUITE_P(EachOf, MediaFaults, testing::ValuesIn(kRows));

}  // namespace

void qs_ns::qs_disconnectDBus() {}

int ms_start() {
  return server.start();
}
int ms_stop() {
  return 0;
}
int ms_openAudPlayback(int) {
  return server.open();
}
int ms_sendDataToAudPlayback(int, const void*, unsigned int size) {
  return server.write(size);
}
int ms_closeAudPlayback(int) {
  return 0;
}
int ms_setOutputAudioPath(int, int) {
  return 0;
}
int ms_createToneSession(int) {
  return -1;
}
int ms_realizeSession(int) {
  return -1;
}
int ms_allocateSession(int) {
  return -1;
}
int ms_startTone(int, int, int) {
  return -1;
}
int ms_stopSession(int) {
  return 0;
}
int ms_closeSession(int) {
  return 0;
}
