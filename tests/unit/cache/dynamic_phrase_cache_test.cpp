#include "cache/dynamic_phrase_cache.h"

#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fake_speech.h"
#include "support/syslog_capture.h"

namespace test {
namespace {

namespace dynamic_cache = qs_ns::dynamic_cache;
using qs_ns::DynamicPhraseCache;

const std::atomic<bool> kTaken{false};

bool add(const std::string& text, int samples = 100, short value = 1) {
  return dynamic_cache::add(text, makeWave(samples, value), kTaken);
}

class DynamicPhraseCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dynamic_cache::clear();
    clearLog();
  }
  void TearDown() override { EXPECT_EQ(liveWaves(), 0); }

  static std::string texts() {
    const platform::MutexLock lock(qs_ns::dynamicCacheMutex);
    std::string all;
    for (const DynamicPhraseCache& record : qs_ns::dequeDynamicPhraseCache)
      all += record.text;
    return all;
  }
};

TEST_F(DynamicPhraseCacheTest, ForgetsTheTextThatWasUsedLeastRecently) {
  // A capital adds a text, its small letter refreshes it, and ! clears the cache.
  struct {
    const char *steps, *left;
  } const rows[] = {
      {"ABCDEFGHIJK", "BCDEFGHIJK"},
      {"ABCDEFGHIJaK", "CDEFGHIJAK"},
      {"ABCaA", "BCAA"},
      {"ABAa", "BA"},
      {"ABz", "AB"},
      {"AB!", ""},
      {"AB!C", "C"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.steps);
    dynamic_cache::clear();
    for (const char step : std::string(row.steps)) {
      const std::string text(1, static_cast<char>(std::toupper(step)));
      if (step == '!') {
        dynamic_cache::clear();
      } else if (std::isupper(step) != 0) {
        EXPECT_TRUE(add(text));
      } else {
        const bool known = dynamic_cache::contains(text);
        const DynamicPhraseCache record = known ? dynamic_cache::get(text) : DynamicPhraseCache{};
        EXPECT_EQ(dynamic_cache::refresh(text, record.samples, 100), known);
      }
    }
    EXPECT_EQ(texts(), row.left);
    EXPECT_EQ(dynamic_cache::size(), static_cast<int>(texts().size()));
  }
}

TEST_F(DynamicPhraseCacheTest, RefusesWhatItCannotKeepAndSaysWhy) {
  ASSERT_TRUE(add("Hold"));
  constexpr int kLongest = 15 * 16000;
  const auto refresh = [](const char* text, int count) {
    return dynamic_cache::refresh(text, nullptr, count);
  };
  struct {
    const char* name;
    bool kept, expected;
    const char* warning;
  } const rows[] = {
      {"empty text", add(""), false, "QS_CT:addDynamicCacheEntry: text is empty"},
      {"no wave", dynamic_cache::add("A", nullptr, kTaken), false,
       "QS_CT:addDynamicCacheEntry: wave=NULL"},
      {"empty wave", add("A", 0), false, "QS_CT:addDynamicCacheEntry: wave=NULL"},
      {"too long", add("A", kLongest + 1), false, nullptr},
      {"another case", dynamic_cache::contains("hold"), false, nullptr},
      {"another length", dynamic_cache::contains("Hold "), false, nullptr},
      {"look for nothing", dynamic_cache::contains(""), false,
       "QS_CT:isInDynamicCache: text is empty"},
      {"get nothing", dynamic_cache::get("").count != 0, false,
       "QS_CT:getDynamicCache: text is empty"},
      {"get a stranger", dynamic_cache::get("A").count != 0, false,
       "QS_CT:getDynamicCache: didn't find in cache"},
      {"refresh nothing", refresh("", 1), false, "QS_CT:refreshDynamicCacheText: text is empty"},
      {"refresh without sound", refresh("Hold", 0), false,
       "QS_CT:refreshDynamicCacheText: no wave file"},
      {"refresh a stranger", refresh("A", 1), false,
       "QS_CT:refreshDynamicCacheText: refresh failed didn't find the text"},
      {"just short enough", add(" II", kLongest), true, nullptr},
  };
  std::vector<std::string> warnings;
  for (const LogLine& line : logLines()) {
    if (line.level == LOG_WARNING) warnings.push_back(line.text);
  }
  std::vector<std::string> expected;
  for (const auto& row : rows) {
    EXPECT_EQ(row.kept, row.expected) << row.name;
    if (row.warning != nullptr) expected.emplace_back(row.warning);
  }
  EXPECT_EQ(warnings, expected);
  EXPECT_EQ(texts(), "Hold II");
}

TEST_F(DynamicPhraseCacheTest, LeavesSamplesHandedOutAloneWhateverHappensToTheText) {
  ASSERT_TRUE(add("A", 100, 7));
  const DynamicPhraseCache record = dynamic_cache::get("A");
  ASSERT_EQ(record.count, 100);
  EXPECT_TRUE(dynamic_cache::refresh("A", std::make_shared<std::int16_t[]>(5), 5));
  EXPECT_EQ(dynamic_cache::get("A").count, 5);
  EXPECT_EQ(dynamic_cache::get("A").samples[0], 0) << "the new sound";
  for (const char* text : {"B", "C", "D", "E", "F", "G", "H", "I", "J", "K"})
    add(text);
  EXPECT_FALSE(dynamic_cache::contains("A"));
  dynamic_cache::clear();
  EXPECT_EQ(std::count(record.samples.get(), record.samples.get() + 100, 7), 100);
}

TEST_F(DynamicPhraseCacheTest, ServesASpeakerWhileOthersFillAndClearIt) {
  std::atomic<bool> ended{false};
  const auto disturb = [&](short value) {
    for (int i = 0; !ended; ++i) {
      add(std::string(1, static_cast<char>('A' + i % 12)), 50, value);
      if (i % 7 == 0) dynamic_cache::clear();
    }
  };
  std::thread first(disturb, short{1});
  std::thread second(disturb, short{2});
  int heard = 0;
  while (heard < 200) {
    const DynamicPhraseCache record = dynamic_cache::get("A");
    if (record.count == 0) continue;
    ++heard;
    const std::int16_t* const samples = record.samples.get();
    EXPECT_EQ(std::count(samples, samples + record.count, samples[0]), 50);
    dynamic_cache::refresh("A", record.samples, record.count);
  }
  ended = true;
  first.join();
  second.join();
  EXPECT_LE(dynamic_cache::size(), 10);
}

}  // namespace
}  // namespace test
