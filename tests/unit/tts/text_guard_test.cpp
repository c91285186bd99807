#include "tts/text_guard.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <random>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "engine_fakes.h"
#include "tts/utterance_pieces.h"

namespace {

using namespace qs_ns;

std::string times(int count, const std::string& part) {
  std::string text;
  for (; count > 0; --count)
    text += part;
  return text;
}

const std::string kReplacement = "\xEF\xBF\xBD";

TEST(TextGuard, ChangesWhatEndsFliteAndNothingElse) {
  const std::pair<std::string, std::string> rows[] = {
      {"", ""},
      {"Hello, world... \"(Really?!)\"\n\tYes", "Hello, world... \"(Really?!)\"\n\tYes"},
      {"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"},
      {times(16, "."), times(16, ".")},
      {times(17, ".") + "x", times(16, ".") + "x"},
      {"hello" + times(400, "."), "hello" + times(16, ".")},
      {times(9, ".!") + " " + times(9, "?)"), times(8, ".!") + " " + times(8, "?)")},
      {times(64, "a"), times(64, "a")},
      {times(64, "\xC3\xA9"), times(64, "\xC3\xA9")},
      {times(65, "a"), times(64, "a") + " a"},
      {times(129, "\xC3\xA9"), times(64, "\xC3\xA9") + " " + times(64, "\xC3\xA9") + " \xC3\xA9"},
      {"b\n" + times(65, "7"), "b\n" + times(64, "7") + " 7"},
      {times(60, "a") + times(20, "."), times(60, "a") + "...." + " " + times(12, ".")},
      {"a\xFFz", "a" + kReplacement + "z"},
      {"\xF0\x9F\x98 \xC3", kReplacement + " " + kReplacement},
      {"\xC0\xAF\xED\xA0\x80\xF4\x90\x80\x80", times(9, kReplacement)},
      {times(65, "\x80"), times(64, kReplacement) + " " + kReplacement},
  };
  for (const auto& [text, safe] : rows) {
    EXPECT_EQ(guardText(text), safe) << text;
    EXPECT_EQ(guardText(safe), safe) << "not stable: " << safe;
  }
}

int stopAtOnce(const cst_wave*, int, int, int, cst_audio_streaming_info*) {
  return CST_AUDIO_STREAM_STOP;
}

std::chrono::nanoseconds processorTime() {
  timespec now = {};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

/// Sends the first pieces of the text through all of Flite that can go wrong, up to their first
/// samples, and returns the longest work for them (the wait on a machine that does nothing else).
std::chrono::nanoseconds longestWork(const std::string& text) {
  constexpr std::size_t kPieces = 5;
  std::chrono::nanoseconds longest{};
  const std::string safe = guardText(text);
  std::vector<std::string_view> pieces = cutIntoPieces(safe);
  if (pieces.size() > kPieces) pieces.resize(kPieces);
  for (const std::string_view piece : pieces) {
    const auto begin = processorTime();
    const Wave wave = qs_flite_tts_stream(std::string(piece).c_str(), stopAtOnce, nullptr, true);
    EXPECT_NE(wave, nullptr);
    longest = std::max(longest, processorTime() - begin);
  }
  return longest;
}

TEST(TextGuard, KeepsFliteAliveAndQuickWhateverAStrangerSends) {
  qs_flite_init();
  const std::string texts[] = {
      "hello" + times(400, "."),
      "hello" + times(400, "?!\"')"),
      times(2000, ")"),
      times(2000, "("),
      times(400, "\""),
      times(400, "'") + "s",
      times(300, "-"),
      times(300, "%"),
      times(10000, "a"),
      times(1000, "w"),
      times(63, "w") + "a",
      times(400, "7"),
      times(100, "777,"),
      times(100, "7-"),
      times(100, "7:"),
      times(100, "a."),
      "1" + times(100, ",") + "1",
      "$100,,0 million $,,0 billion $1" + times(30, ",") + "1 million",
      "chapter " + times(100, "X"),
      "King " + times(100, "XVI"),
      "1e" + times(100, "9") + " ." + times(100, "1") + "e+9",
      "'tve " + times(100, "'") + "ll",
      times(100, "\xE2\x80\x99s"),
      times(200, "\xFF"),
      times(100, "\xF0\x9F\x98\x80"),
      times(200, "\xE2\x82"),
      times(64, "\xF0\x9F\x98"),
      times(1000, "\n"),
      times(100, "\x01\x02"),
      times(300, "@"),
      times(300, "/"),
      times(300, "a@b.c/"),
  };
  for (const std::string& text : texts) {
    SCOPED_TRACE(text.substr(0, 40));
    EXPECT_LT(longestWork(text), std::chrono::seconds(3));
  }
  std::mt19937 random(1);
  const std::string_view parts[] = {"7",    "00",   ",",       ".",  "$", "%", "'",  "-",
                                    "/",    ":",    "th",      "st", "s", "e", "pm", "kg",
                                    " ",    "King", "million", "X",  "V", "I", "Dr", "\xC3\xA9",
                                    "\xFF", "a",    "bc",      "(",  "\""};
  for (int round = 0; round < 40; ++round) {
    std::string text;
    for (auto i = random() % 30; i > 0; --i)
      text += parts[random() % std::size(parts)];
    SCOPED_TRACE(testing::PrintToString(text));
    EXPECT_LT(longestWork(text), std::chrono::seconds(3));
  }
}

}  // namespace
