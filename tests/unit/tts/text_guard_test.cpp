#include "tts/text_guard.h"

#include <gtest/gtest.h>

namespace {

using qs_ns::guardText;

std::string times(int count, const std::string& part) {
  std::string text;
  for (; count > 0; --count)
    text += part;
  return text;
}

const std::string kReplacement = "\xEF\xBF\xBD";

TEST(TextGuard, ChangesWhatEndsFliteAndNothingElse) {
  const std::string harmless =
      "Hello... \"(Really?!)\"\n\tcaf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80";
  const std::pair<std::string, std::string> rows[] = {
      {harmless, harmless},
      {times(16, ".") + "x", times(16, ".") + "x"},
      {"hello" + times(400, "."), "hello" + times(16, ".")},
      {times(9, ".!") + " " + times(9, "?)"), times(8, ".!") + " " + times(8, "?)")},
      {times(64, "\xC3\xA9"), times(64, "\xC3\xA9")},
      {times(129, "\xC3\xA9"), times(64, "\xC3\xA9") + " " + times(64, "\xC3\xA9") + " \xC3\xA9"},
      {"b\n" + times(65, "7"), "b\n" + times(64, "7") + " 7"},
      {times(60, "a") + times(20, "."), times(60, "a") + "...." + " " + times(12, ".")},
      {"\xF0\x9F\x98 \xC3", kReplacement + " " + kReplacement},
      {"\xC0\xAF\xED\xA0\x80\xF4\x90\x80\x80", times(9, kReplacement)},
  };
  for (const auto& [text, safe] : rows) {
    EXPECT_EQ(guardText(text), safe) << text;
    EXPECT_EQ(guardText(safe), safe) << "not stable: " << safe;
  }
}

}  // namespace
