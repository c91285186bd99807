#include "cache/dynamic_phrase_cache.h"

#include <atomic>
#include <cctype>
#include <string>

#include <gtest/gtest.h>

#include "fake_speech.h"

namespace test {
namespace {

namespace dynamic_cache = qs_ns::dynamic_cache;
using qs_ns::DynamicPhraseCache;

const std::atomic<bool> kTaken{false};

bool add(const std::string& text, int samples = 100) {
  return dynamic_cache::add(text, makeWave(samples, 1), kTaken);
}

std::string texts() {
  const platform::MutexLock lock(qs_ns::dynamicCacheMutex);
  std::string all;
  for (const DynamicPhraseCache& record : qs_ns::dequeDynamicPhraseCache)
    all += record.text;
  return all;
}

TEST(DynamicPhraseCacheTest, ForgetsTheTextThatWasUsedLeastRecently) {
  // A capital adds a text, its small letter refreshes it.
  struct {
    const char *steps, *left;
  } const rows[] = {
      {"ABCDEFGHIJK", "BCDEFGHIJK"},
      {"ABCDEFGHIJaK", "CDEFGHIJAK"},
      {"ABCaA", "BCAA"},
      {"ABAa", "BA"},
      {"ABz", "AB"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.steps);
    dynamic_cache::clear();
    for (const char step : std::string(row.steps)) {
      const std::string text(1, static_cast<char>(std::toupper(step)));
      if (std::isupper(step) != 0) {
        EXPECT_TRUE(add(text));
      } else {
        const DynamicPhraseCache record = dynamic_cache::get(text);
        EXPECT_EQ(record.count != 0, dynamic_cache::contains(text));
        EXPECT_EQ(dynamic_cache::refresh(text, record.samples, 100), record.count != 0);
      }
    }
    EXPECT_EQ(texts(), row.left);
  }
}

TEST(DynamicPhraseCacheTest, RefusesWhatItCannotKeep) {
  constexpr int kLongest = 15 * 16000;
  dynamic_cache::clear();
  EXPECT_FALSE(add(""));
  EXPECT_FALSE(dynamic_cache::add("A", nullptr, kTaken));
  EXPECT_FALSE(add("A", 0));
  EXPECT_FALSE(add("A", kLongest + 1));
  EXPECT_TRUE(add("Long", kLongest));
  EXPECT_EQ(texts(), "Long");
}

}  // namespace
}  // namespace test
