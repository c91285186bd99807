#include <atomic>
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
  struct Report {
    DBus::Tag* tag;
    int result;
    bool stopped;
  };

  void take(FliteConversionResponse& response) {
    const std::lock_guard lock(mutex);
    all.push_back({response.tag, response.result, response.stopped});
  }

  qs_ns::ConversionCallback callback() {
    return std::make_shared<DBus::Callback<Reports, void, FliteConversionResponse&>>(
        this, &Reports::take);
  }

  std::mutex mutex;
  std::vector<Report> all;
};

class Conversions : public testing::Test {
 protected:
  Conversions() { test::clearLog(); }

  QS_ConvertTTSThread& add(const std::string& text) {
    tags.push_back(std::make_unique<DBus::Tag>());
    threads.push_back(std::make_unique<QS_ConvertTTSThread>(tags.back().get(), text, "path",
                                                            reports.callback(), line));
    EXPECT_EQ(threads.back()->start(), 0);
    return *threads.back();
  }

  test::SkippingClock clock;
  Reports reports;
  qs_ns::ConversionLine line;
  std::vector<std::unique_ptr<DBus::Tag>> tags;
  std::vector<std::unique_ptr<QS_ConvertTTSThread>> threads;
};

TEST_F(Conversions, SynthesiseOneAtATimeInTheirOrderAndReportEachResult) {
  test::Gate first;
  std::atomic<int> underWay{0};
  synthesise = [&](const std::string& text, const std::atomic<bool>&) {
    EXPECT_EQ(++underWay, 1);
    if (text == "0") first.pass();
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
    EXPECT_EQ(reports.all[i].tag, tags[i].get());
    EXPECT_EQ(reports.all[i].result, i == 1 ? -2 : 0);
    EXPECT_FALSE(reports.all[i].stopped);
  }
  EXPECT_EQ(test::countLog("Error in TTS: -2"), 1);
}

TEST_F(Conversions, EndWhenAskedBothWaitingAndSynthesisingAndReportThat) {
  test::Gate running;
  synthesise = [&](const std::string&, const std::atomic<bool>& stop) {
    running.pass();
    return stop ? -2 : 0;
  };
  QS_ConvertTTSThread& synthesising = add("synthesising");
  running.awaitArrival();
  const int waits = test::waitsBegun().value();
  QS_ConvertTTSThread& waiting = add("waiting");
  test::waitsBegun().await(waits + 1);
  waiting.stop();
  waiting.join();
  ASSERT_EQ(reports.all.size(), 1U) << "one that waits ends while another synthesises";
  EXPECT_EQ(reports.all[0].result, -2);
  synthesising.stop();
  running.open();
  synthesising.join();
  ASSERT_EQ(reports.all.size(), 2U);
  EXPECT_TRUE(reports.all[0].stopped);
  EXPECT_TRUE(reports.all[1].stopped);
}

TEST_F(Conversions, OneThatWasDoneBeforeTheStopIsReportedAsDone) {
  synthesise = [&](const std::string&, const std::atomic<bool>&) {
    threads.front()->stop();
    return 0;
  };
  add("done");
  threads.front()->join();
  ASSERT_EQ(reports.all.size(), 1U);
  EXPECT_FALSE(reports.all[0].stopped);
}

}  // namespace

int qs_ns::qs_flite_tts_file(const std::string& text, const std::string&, int,
                             const std::atomic<bool>* stop) {
  return synthesise(text, *stop);
}
