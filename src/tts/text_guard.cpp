#include "tts/text_guard.h"

#include <cstddef>

#include "tts/utf8.h"

namespace qs_ns {

namespace {

constexpr std::size_t kMaxPunctuationRun = 16;
constexpr std::size_t kMaxTokenCharacters = 64;
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

constexpr bool isPunctuation(char c) {
  return (c >= '!' && c <= '/') || (c >= ':' && c <= '@') || (c >= '[' && c <= '`') ||
         (c >= '{' && c <= '~');
}

}  // namespace

std::string guardText(std::string_view text) {
  std::string safe;
  safe.reserve(text.size());
  std::size_t punctuationRun = 0;
  std::size_t tokenCharacters = 0;
  while (!text.empty()) {
    const Utf8Unit unit = firstUtf8Unit(text);
    const std::string_view character = unit.valid ? text.substr(0, unit.bytes) : kReplacement;
    text.remove_prefix(unit.bytes);

    punctuationRun = isPunctuation(character[0]) ? punctuationRun + 1 : 0;
    if (punctuationRun > kMaxPunctuationRun) continue;
    if (isBlank(character[0])) {
      tokenCharacters = 0;
    } else if (++tokenCharacters > kMaxTokenCharacters) {
      safe += ' ';
      tokenCharacters = 1;
    }
    safe += character;
  }
  return safe;
}

}  // namespace qs_ns
