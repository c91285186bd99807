#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include "dbus/convert_tts_thread.h"
#include "support/gate.h"
#include "support/link_seams.h"
#include "support/skipping_clock.h"
#include "support/syslog_capture.h"
#include "tts/speech_engine.h"

namespace {

using qs_ns::FliteConversionResponse;
using qs_ns::QS_ConvertTTSThread;

std::function<int(const std::string&, const std::atomic<bool>&)> synthesise;

/// Keeps what the conversions report.
struct Reports {
  void take(FliteConversionResponse& response) {
    const std::lock_guard lock(mutex);
    all.push_back(response);
  }

  std::mutex mutex;
  std::vector<FliteConversionResponse> all;
};

class Conversions : public testing::Test {
 protected:
  Conversions() { test::clearLog(); }

  QS_ConvertTTSThread& add(const std::string& text) {
    threads.push_back(std::make_unique<QS_ConvertTTSThread>(
        &tags.emplace_back(), text, "path",
        std::make_shared<DBus::Callback<Reports, void, FliteConversionResponse&>>(&reports,
                                                                                  &Reports::take),
        line));
    EXPECT_EQ(threads.back()->start(), 0);
    return *threads.back();
  }

  test::SkippingClock clock;
  Reports reports;
  qs_ns::ConversionLine line;
  std::deque<DBus::Tag> tags;
  std::vector<std::unique_ptr<QS_ConvertTTSThread>> threads;
};

TEST_F(Conversions, SynthesiseOneAtATimeInTheirOrderAndReportEachResult) {
  test::Gate first;
  std::atomic<int> underWay{0};
  synthesise = [&](const std::string& text, const std::atomic<bool>&) {
    EXPECT_EQ(++underWay, 1);
    if (text == "0") first.pass();
    // Too late: it is done.
    if (text == "2") threads[2]->stop();
    --underWay;
    return text == "1" ? -2 : 0;
  };
  for (const char* text : {"0", "1", "2"})
    add(text);
  first.awaitArrival();
  ASSERT_TRUE(test::waitForLog("QS_ConvertTTSThread: threadloop started", 3));
  first.open();
  for (const auto& thread : threads)
    thread->join();
  ASSERT_EQ(reports.all.size(), 3U);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(reports.all[i].tag, &tags[i]);
    EXPECT_EQ(reports.all[i].result, i == 1 ? -2 : 0);
    EXPECT_FALSE(reports.all[i].stopped);
  }
}

TEST_F(Conversions, EndWhenAskedBothWaitingAndSynthesisingAndReportThat) {
  // The engine's wait for the voice.
  qs_ns::voiceMutex.lock();
  const qs_ns::VoiceHold hold(qs_ns::voiceMutex);
  synthesise = [](const std::string&, const std::atomic<bool>& stop) {
    EXPECT_FALSE(qs_ns::voiceMutex.take(qs_ns::Urgency::background, [&] { return stop.load(); }));
    return -2;
  };
  int waits = test::waitsBegun().value();
  QS_ConvertTTSThread& synthesising = add("synthesising");
  test::waitsBegun().await(++waits);
  QS_ConvertTTSThread& waiting = add("waiting");
  test::waitsBegun().await(waits + 1);
  waiting.stop();
  waiting.join();
  ASSERT_EQ(reports.all.size(), 1U) << "one that waits ends while another synthesises";
  EXPECT_EQ(reports.all[0].result, -2);
  synthesising.stop();
  synthesising.join();
  ASSERT_EQ(reports.all.size(), 2U);
  EXPECT_TRUE(reports.all[0].stopped);
  EXPECT_TRUE(reports.all[1].stopped);
}

}  // namespace

int qs_ns::qs_flite_tts_file(const std::string& text, const std::string&, int,
                             const std::atomic<bool>* stop) {
  return synthesise(text, *stop);
}
